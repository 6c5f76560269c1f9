#!/usr/bin/env bash
# A printer moves, and the next job that comes through Wine's print spooler follows it.
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"
. "$root/tests/support/spooler.sh"

printers_network moved
mkdir "$work/jobs"
spooler_on "$client_prefix" client_wine
spooler_install

# printer_at ADDRESS: the printer takes jobs there, and announces itself.
printer_at() {
    printers "$work/jobs" "$1"
    agents "service:printer first=$1 list=$(announcement "$1" 0004004A1B2C prn-1 Model_100)"
}
# job ADDRESS: a document arrives at this address. Documents differ in their length.
job() {
    head -c $((100000 + ++jobs)) /dev/urandom >"$work/document"
    expect 0 "in queue Laser" kestctl print "$work/document" --port OFFICE
    take_job "$(echo "$work/jobs/$1"-*)" "$work/document"
    rm "$work/jobs/$1"-*
}
jobs=0

say "the printer is found, and takes a job"
printer_at 10.77.1.20
expect 0 "following 0004004A1B2C, prn-1" kestctl port add OFFICE --follow 10.77.1.20
expect 0 ok spooler add-printer Laser OFFICE
expect 0 "1 port: 1 ok" kestctl port check
rm -f "$work"/jobs/* # the connection of the check
job 10.77.1.20

say "it moves: the next job finds it"
printer_at 10.77.1.31
expect 1 "moved" kestctl port check
rm -f "$work"/jobs/*
job 10.77.1.31
expect 0 '"address": "10.77.1.31"' kestctl port show OFFICE --json
log=$(echo "$client_prefix"/drive_c/users/*/Temp)/KestSetupWizard.log
lines=$(wc -l <"$log")
job 10.77.1.31
[ "$(wc -l <"$log")" -eq "$lines" ] || fail "a job searched for a printer that had not moved"

say "it is switched off: the failure of the job reaches the caller"
printers_off
expect 1 "does not end job" kestctl print "$work/document" --port OFFICE
expect 0 '"address": "10.77.1.31"' kestctl port show OFFICE --json
