#!/usr/bin/env bash
# The life of a port in Wine's print spooler, by the installed files.
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/spooler.sh"

wine_machine
work=$WINEPREFIX/drive_c/work
mkdir "$work"
spooler_install

say "a port without a printer"
expect 0 "There are no ports" kestctl port list
expect 0 "added: raw to 127.0.0.1:9100" kestctl port add Büro --address 127.0.0.1
expect 1 "already exists" kestctl port add BÜRO --address 127.0.0.1
expect 1 "Choose another" kestctl port add LPT1: --address 127.0.0.1
expect 0 $'LPT3:\nBüro\nok' spooler ports
expect 0 "alwaysPrint: false -> true" kestctl port set Büro --mac 0004004A1B2C --always-print
expect 0 '"mac": "0004004A1B2C"' kestctl port show Büro --json

say "a port with two printers"
expect 0 ok spooler add-printer Laser Büro
expect 0 ok spooler add-printer Copy Büro
expect 0 "Copy, Laser" kestctl port list
expect 1 "used by printers Copy, Laser" kestctl port delete Büro
expect 0 ok spooler delete-printer Copy
expect 1 "used by printer Laser" kestctl port delete Büro

say "the port in a file"
expect 0 "1 port" kestctl port export 'C:\work\ports.json'
expect 0 ok spooler delete-printer Laser
expect 0 "deleted" kestctl port delete Büro
expect 0 $'LPT3:\nok' spooler ports
expect 0 "1 added" kestctl port import 'C:\work\ports.json'
expect 0 '"alwaysPrint": true' kestctl port show Büro --json

say "kestctl selftest"
expect 0 "listed through the print spooler" kestctl selftest
expect 0 ok spooler printers
[ "$(spooler printers)" = ok ] || fail "the self-test left a printer behind"

say "the monitor is removed, and its ports with it"
expect 0 "1 port is kept" kestctl monitor remove --keep-ports 'C:\work\kept.json'
cmp "$work/kept.json" "$work/ports.json" || fail "the removal kept other ports than there were"
expect 0 $'LPT3:\nok' spooler ports
