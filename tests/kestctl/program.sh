#!/usr/bin/env bash
# kestctl as a user runs it by script/kestctl: exit codes and output; and jobs past the spooler.
# program.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/peers.sh"

kestctl() { "$root/script/kestctl" "$@"; }
office="Büro"

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
expect 2 "no command 'remove'. The commands are: list, show" port remove "$office"
expect 2 "--port 9100" port add "$office" --address 10.0.0.1:9100
expect 2 "most similar one is --follow" port add "$office" --folow 10.0.0.1
expect 2 "no option --xyzzy" port set "$office" --xyzzy=1
expect 1 "there is no port $office" port show "$office"

expect 0 "added" port add "$office" --address "$peer_address"
expect 1 "already exists" port add "$office" --address "$peer_address"
expect 0 "\"name\": \"$office\"" port list --json
expect 1 "no printer prints to port" print document.bin --port "$office"

# Past the spooler, which then only has the job that controls this one.
wine "$build/tests/spooler.exe" add-printer Control NUL: >/dev/null
direct() { expect "$1" "$2" --direct print "${@:3}" --port "$office" --printer Control; }
direct 0 "3000000 bytes sent" document.bin --as "Übersicht"
peer_received raw arrived && cmp arrived document.bin
direct 0 "3000000 bytes sent" "$PWD/document.bin"
peer_received raw arrived && cmp arrived document.bin
peers_stop
direct 1 "(10061)" document.bin

# A printer that reads one octet: Ctrl-C ends the job, and the connection at once.
coproc printer {
    exec python3 -uc '
import socket, sys
listener = socket.create_server((sys.argv[1], 9100))
print("ready")
connection = listener.accept()[0]
connection.recv(1)
print("printing")
sys.stdin.readline()
try:
    while connection.recv(65536):
        pass
    print("closed")
except ConnectionResetError:
    print("reset")' "$peer_address"
}
await() {
    read -r line <&"${printer[0]}"
    [ "$line" = "$1" ] || fail "the printer says '$line' instead of '$1'"
}
await ready
truncate -s 50M large.bin
set -m # a group of its own, which hears Ctrl-C
wine "$build/bin/kestctl.exe" --direct print large.bin --port "$office" --printer Control \
    2>/dev/null &
job=$!
set +m
await printing
kill -INT -- "-$job"
code=0
wait "$job" || code=$?
[ "$code" -eq 130 ] || fail "an interrupted job ends with exit code $code"
echo >&"${printer[1]}"
await reset

expect 0 "deleted" port delete "$office"
expect 1 "there is no port" port delete "$office"
