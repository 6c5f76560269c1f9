#!/usr/bin/env bash
# The package, taken by the installer of a machine of its own: installed, upgraded, repaired,
# removed, and the machine compared with what it was before. msi.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/spooler.sh"
. "$root/tests/support/peers.sh"

work=$(mktemp -d "$build/msi.XXXXXX")
at_exit "rm -rf '$work'"
wine_machine

drive=$WINEPREFIX/drive_c
program="$drive/Program Files/kestmon"
system=$drive/windows/system32

# installer EXPECTED-CODE ARGUMENT...: the installer's own log is shown when it ends otherwise. Of
# its exit codes this machine sees the last eight bits; a program of the package that fails is 1627
# here, where Windows says 1603.
installer() {
    local expected=$1 code=0
    shift
    wine msiexec "$@" /qn /l*v "C:\\msi.log" >"$work/output" 2>&1 || code=$?
    [ "$code" -eq "$expected" ] && return
    cat "$work/output" >&2
    tail -20 "$drive/msi.log" >&2 || true
    fail "msiexec $*: exit code $code instead of $expected"
}

# What an installation may change: files, and the registry's keys of the print system, of installed
# programs, and of the environment.
machine() {
    local key
    (cd "$drive" && find . -type f -not -path './msi.log' -not -path './windows/Installer/*' \
        -not -ipath '*/temp/*' -printf '%p %s\n' | LC_ALL=C sort)
    for key in 'HKLM\SYSTEM\CurrentControlSet\Control\Print' \
        'HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall' \
        'HKLM\SYSTEM\CurrentControlSet\Control\Session Manager\Environment'; do
        # This machine's installer leaves the semicolon of an entry that it takes out of the PATH.
        wine reg query "$key" /s | tr -d '\r' | sed -E '/ PATH /s/;*$//'
    done
}

kestctl_program=$program/kestctl.exe
# A library that is in use goes at the next start.
restart() {
    wine_stop
    wine_start
}
on_path() {
    wine reg query 'HKLM\SYSTEM\CurrentControlSet\Control\Session Manager\Environment' /v PATH |
        grep -qF 'C:\Program Files\kestmon'
}
entries() {
    wine reg query 'HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall' /s |
        grep -cE 'DisplayName +REG_SZ +kestmon' || true
}
# What the spooler is to find.
monitor_there() {
    for file in kestmon.dll slp64.dll kestui.dll SLPConf.xml; do
        cmp "$build/bin/$file" "$system/$file" || fail "$file is not what was built, $1"
    done
    kestctl monitor status --json >"$work/status" 2>/dev/null || true
    grep -q '"driver": "kestmon.dll"' "$work/status" ||
        fail "the monitor is not registered, $1: $(cat "$work/status")"
}
installed() {
    [ "$(entries)" -eq 1 ] || fail "$(entries) entries in the list of programs, $1"
    on_path || fail "kestctl is not on the PATH, $1"
    monitor_there "$1"
}

old=$work/old.msi new=$work/new.msi
"$root/package/make-msi" 0.9.0 "$old"
"$root/package/make-msi" "$(project_version)" "$new"

# Printing and the bridge leave files and registry values that do not belong to the package.
cp "$build/tests/spooler_bridge.dll" "$system"
spooler add-printer Laser NUL: >/dev/null
spooler delete-printer Laser >/dev/null
machine >"$work/before"
installer 0 /i "Z:$old"
installed "the first time"
installer 0 /i "Z:$new"
installed "upgraded"
installer $((1603 & 255)) /i "Z:$old"
installed "after an older one was refused"

rm "$program/README.md" "$system/slp64.dll"
installer 0 /i "Z:$new" REINSTALL=ALL REINSTALLMODE=amus
installed "repaired"
[ -e "$program/README.md" ] || fail "the repair left README.md away"
diff -r "$root/docs" "$program/docs" || fail "the documents are not those of docs/"

# Jobs go through Wine's spooler to the monitor that the package has installed.
spooler_bridge
at_exit peers_stop
peers_start "$work/servers"
head -c 1000000 /dev/urandom >"$work/document"
expect 0 added kestctl port add OFFICE --address "$peer_address"
expect 0 ok spooler add-printer Laser OFFICE
expect 0 "in queue Laser" kestctl print "$work/document" --port OFFICE
peer_received raw "$work/arrived" && cmp "$work/arrived" "$work/document"

# A port that a printer prints to keeps the monitor, unless FORCE says otherwise.
installer $((1627 & 255)) /x "Z:$new"
grep -q Laser "$program/setup.log" || fail "the printer in the way is not named in setup.log"
expect 0 $'\nOFFICE\nok' spooler ports
# This machine's installer takes its own entries away before it asks; Windows puts them back.
spooler_driver kestmon.dll
installer 0 /i "Z:$new"
spooler_bridge
expect 0 ok spooler delete-printer Laser
installer 0 /x "Z:$new" 'KEEPPORTS=C:\ports.json'
grep -q '"address": "'"$peer_address" "$drive/ports.json" || fail "the port was not kept"
restart
installer 0 /i "Z:$new"
spooler_bridge
expect 0 "1 added" kestctl port import 'C:\ports.json'
expect 0 ok spooler add-printer Laser OFFICE
installer 0 /x "Z:$new" FORCE=1
expect 0 ok spooler delete-printer Laser
rm "$drive/ports.json"
restart
machine >"$work/after"
diff "$work/before" "$work/after" || fail "the machine is not what it was"
