#!/usr/bin/env bash
# Operates the dialogs that AddPort, ConfigurePort and DeletePort of Windows open with the keyboard,
# and checks the results in Wine's print spooler. Runs itself again in a network namespace because
# the dialogs search for printers: dialogs.sh [inside]
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/screen.sh"
. "$root/tests/support/moving.sh"
. "$root/tests/support/spooler.sh"

if [ $# -eq 0 ]; then
    netns_need
    netns_up
    # shellcheck disable=SC2034 # moving.sh runs the printers there
    printers_host=(ip netns exec "$peer_ns")
    work=$(mktemp -d "$build/dialogs.XXXXXX")
    at_exit "rm -rf '$work'"
    printers "$work" 10.77.1.20 10.77.1.31
    first=$(announcement 10.77.1.20 0004004A1B2C prn-1 Model_100)
    second=$(announcement 10.77.1.31 00040000004D prn-2 Model_200)
    agents "service:printer first=10.77.1.20 list=$first" \
        "service:printer first=10.77.1.31 list=$second"
    in_client "$0" inside
    exit
fi

screen_up
spooler_on "$screen_prefix" on_screen
spooler_install
outcome=$screen_prefix/outcome
# Wine ends a desktop that no program uses, and a window that opens meanwhile does not get the
# keyboard.
spooler desktop >/dev/null 2>&1 &

# opens TITLE TEXT COMMAND...: a print function opens this window. Its outcome is for `closes`.
opens() {
    spooler "${@:3}" >"$outcome" 2>&1 &
    shows "$1" "$2"
}
shows() { expect 0 ok spooler window "$1" "$2"; }
closes() {
    wait $! || true
    [ "$(cat "$outcome")" = "$1" ] ||
        fail "the function ended with '$(cat "$outcome")', not with '$1'"
}
keys() { DISPLAY=$screen_display xdotool key --delay 50 "$@"; }
write() { DISPLAY=$screen_display xdotool type --delay 50 "$1"; }

say "add a port: an address is typed, and the printer there is followed"
opens "Add Printer Port" "2 printers were found." add-port kestmon
keys alt+r
write 10.77.1.20
keys alt+n ctrl+a
write OFFICE
shows "Add Printer Port" "by its MAC address 00:04:00:4A:1B:2C or its host name prn-1"
keys alt+a
closes ok
expect 0 '"address": "10.77.1.20"' kestctl port show OFFICE --json
expect 0 '"mac": "0004004A1B2C"' kestctl port show OFFICE --json

say "add a port: one of the list is picked, then all is canceled"
opens "Add Printer Port" "2 printers were found." add-port kestmon
keys alt+p Down
shows "Add Printer Port" "The printer is identified by"
keys Escape
closes "error 1223"
expect 0 $'LPT3:\nOFFICE\nok' spooler ports

say "a name that is taken is refused, another one is not"
opens "Add Printer Port" "2 printers were found." add-port kestmon
keys alt+r
write 10.77.1.31
keys alt+n ctrl+a
write office
keys Return
shows "Add Printer Port" "A port with this name already exists."
keys alt+n ctrl+a
write LABELS
keys Return
closes ok
expect 0 $'LABELS\nOFFICE\nok' spooler ports

say "configure a port"
opens "Configure Port LABELS" "10.77.1.31" configure-port LABELS
keys alt+e
shows "Configure Port LABELS" "10.77.1.31 accepts connections on TCP port 9100."
shows "Configure Port LABELS" "The printer at this address is the one"
keys alt+l alt+q
write zebra
keys Return
closes ok
expect 0 "lpr to 10.77.1.31:515, queue zebra" kestctl port list
expect 0 ok spooler add-printer Laser LABELS

say "a port that a printer uses is not deleted, another one is"
opens "Delete Port" "Laser" delete-port LABELS
keys Escape
closes "error 1223"
opens "Delete Port" "delete the port OFFICE?" delete-port OFFICE
keys alt+d
closes ok
expect 0 $'LPT3:\nLABELS\nok' spooler ports

# refused TEXT: each dialog reports this, and closes.
refused() {
    opens "Add Printer Port" "$1" add-port kestmon
    keys Return
    closes "error 1223"
    opens "Configure Port" "$1" configure-port LABELS
    keys Return
    closes "error 1223"
    opens "Delete Port" "$1" delete-port LABELS
    keys Return
    closes "error 1223"
}

say "access is denied"
export SPOOLER_REFUSES=access
refused "You need permission to manage the print server."

say "the spooler gives no channel to the monitor"
export SPOOLER_REFUSES=channel
refused "The print spooler has not loaded kestmon."
unset SPOOLER_REFUSES
expect 0 $'LPT3:\nLABELS\nok' spooler ports

say "a monitor that is not loaded opens no window"
mv "$screen_prefix/drive_c/windows/system32/kestmon.dll" "$screen_prefix/kept.dll"
expect 1 "error" spooler add-port kestmon
expect 1 "error" spooler configure-port LABELS
expect 1 "error" spooler delete-port LABELS
