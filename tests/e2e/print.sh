#!/usr/bin/env bash
# Documents through Wine's print spooler, to print servers that this project did not write.
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/spooler.sh"
. "$root/tests/support/peers.sh"
. "$root/tests/support/moving.sh"

wine_machine
work=$WINEPREFIX/drive_c/work
mkdir -p "$work/jobs"
cd "$work"
head -c 3000000 /dev/urandom >document.bin
head -c 50000000 /dev/urandom >large.bin
: >empty.bin
spooler_install
at_exit peers_stop
peers_start servers
expect 0 added kestctl port add RAW --address "$peer_address"
expect 0 added kestctl port add LPR --address "$peer_address" --port "$peer_lpd_port" \
    --protocol lpr --queue kq --double-spool
expect 0 added kestctl port add STREAM --address "$peer_address" --port "$peer_lpd_port" \
    --protocol lpr --queue kq
expect 1 "no printer prints to port RAW" kestctl print document.bin --port RAW
for port in RAW LPR STREAM; do
    expect 0 ok spooler add-printer "on $port" $port
done

# arrived raw|lpr FILE
arrived() {
    peer_received "$1" arrived || fail "the job stays in the queue of the $1 server"
    cmp arrived "$2" || fail "$2 arrived changed at the $1 server"
}
# sent FILE BYTES PORT raw|lpr
sent() {
    expect 0 "$1: $2 bytes in queue on $3 as job" kestctl print "$1" --port "$3"
    arrived "$4" "$1"
}

say "3 MB and 50 MB"
sent document.bin 3000000 RAW raw
sent large.bin 50000000 RAW raw
sent document.bin 3000000 LPR lpr
sent large.bin 50000000 LPR lpr
# Without double spooling a length of 0 is announced: lpd keeps the octet that ends the data.
cat large.bin <(printf '\0') >large.lpr
expect 0 "50000000 bytes" kestctl print large.bin --port STREAM
arrived lpr large.lpr

say "standard input"
expect 0 "standard input: 3000000 bytes" kestctl print - --port RAW <document.bin
arrived raw document.bin
expect 0 "standard input: 3000000 bytes" kestctl print - --port LPR --as Übersicht <document.bin
arrived lpr document.bin

say "no bytes"
expect 1 "empty.bin is empty" kestctl print empty.bin --port RAW
expect 0 ok spooler print "on RAW" empty.bin
arrived raw empty.bin
# A length of 0 is announced here, too.
expect 0 ok spooler print "on LPR" empty.bin
arrived lpr <(printf '\0')

say "two queues on one port"
expect 0 ok spooler add-printer second RAW
sent document.bin 3000000 RAW raw
expect 0 "in queue second" kestctl print large.bin --port RAW --printer second
arrived raw large.bin

say "printers that refuse"
peers_stop
for port in RAW LPR STREAM; do
    expect 1 "does not end job" kestctl print document.bin --port $port
    expect 1 "error" spooler print "on $port" document.bin
done
printers jobs "$peer_address"
expect 0 "3000000 bytes" kestctl print document.bin --port RAW
take_job "jobs/$peer_address-1" document.bin
printers_off
