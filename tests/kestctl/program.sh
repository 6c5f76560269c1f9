#!/usr/bin/env bash
# kestctl as a user runs it: exit codes, output, and documents that arrive. program.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/peers.sh"

kestctl() { "$root/script/kestctl" "$@"; }
office="Büro"
daemon="LPD"

wine_machine

# expect CODE TEXT ARGUMENT...: runs kestctl; its exit code, and a text that it prints.
expect() {
    local code=$1 text=$2 got=0 output
    shift 2
    output=$(kestctl "$@" 2>&1) || got=$?
    [ "$got" -eq "$code" ] || fail "kestctl $*: exit code $got instead of $code: $output"
    [[ $output == *"$text"* ]] || fail "kestctl $*: no '$text' in: $output"
}

mkdir "$WINEPREFIX/drive_c/work"
cd "$WINEPREFIX/drive_c/work"
head -c 3000000 /dev/urandom >document.bin
at_exit peers_stop
peers_start servers

expect 0 "kestctl port delete OFFICE" --help
expect 0 "Example:" port set --help
expect 0 "kestctl " --version
expect 2 "subcommand is required"
expect 2 "no command 'remove' here, there are: list, show" port remove "$office"
expect 2 "--port 9100" port add "$office" --address 10.0.0.1:9100
expect 1 "there is no port $office" port show "$office"

expect 0 "added" port add "$office" --address "$peer_address"
expect 1 "already there" port add "$office" --address "$peer_address"
expect 0 "\"name\": \"$office\"" port list --json
expect 0 "3000000 bytes sent" print document.bin --port "$office" --as "Übersicht"
peer_received raw arrived && cmp arrived document.bin
expect 0 "3000000 bytes sent" print "$PWD/document.bin" --port "$office"
peer_received raw arrived && cmp arrived document.bin

# A length of 0 is announced: lpd then keeps the octet that ends the data.
expect 0 "queue kq" port add "$daemon" --address "$peer_address" --port "$peer_lpd_port" \
    --protocol lpr --queue kq
expect 0 "bytes sent" print document.bin --port "$daemon"
peer_received lpr arrived && cmp arrived <(cat document.bin && printf '\0')
expect 0 "double spooled" port set "$daemon" --double-spool
expect 0 "bytes sent" print document.bin --port "$daemon"
peer_received lpr arrived && cmp arrived document.bin

peers_stop
expect 1 "(10061)" print document.bin --port "$office"
expect 0 "deleted" port delete "$office"
expect 1 "there is no port" port delete "$office"
