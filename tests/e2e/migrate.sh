#!/usr/bin/env bash
# Printers of Wine's print spooler move from ports of the standard monitor to ports of this one, and
# back again. Wine has no standard monitor: its ports are made in the registry, where kestctl reads
# them, and print nothing.
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/spooler.sh"
. "$root/tests/support/peers.sh"

wine_machine
work=$WINEPREFIX/drive_c/work
mkdir "$work"
cd "$work"
head -c 1000000 /dev/urandom >document.bin
spooler_install
at_exit peers_stop
peers_start servers

standard_ports='HKLM\SYSTEM\CurrentControlSet\Control\Print\Monitors\Standard TCP/IP Port\Ports'
# standard_port NAME PROTOCOL PORT-NUMBER QUEUE
standard_port() {
    local name type data
    while IFS='|' read -r name type data; do
        wine reg add "$standard_ports\\$1" \
            /v "$name" /t "REG_$type" /d "$data" /f >/dev/null </dev/null
    done <<EOF
HostName|SZ|$peer_address
Queue|SZ|$4
Protocol|DWORD|$2
PortNumber|DWORD|$3
Double Spool|DWORD|1
SNMP Enabled|DWORD|0
Version|DWORD|2
EOF
}
standard_port IP_RAW 1 "$peer_raw_port" none
standard_port IP_LPR 2 "$peer_lpd_port" kq
expect 0 ok spooler add-printer Laser IP_RAW
expect 0 ok spooler add-printer Labels IP_LPR
expect 0 ok spooler add-printer Other FILE:
before=$(spooler printers)

say "the plan changes nothing"
expect 0 "IP_LPR" kestctl port migrate --dry-run
[ "$(spooler printers)" = "$before" ] || fail "the dry run moved a printer: $(spooler printers)"

say "the printers move, and print"
expect 0 "" kestctl port migrate --yes --undo-file undo.json
expect 0 $'Labels IP_LPR-kestmon\nLaser IP_RAW-kestmon\nOther FILE:\nok' spooler printers
expect 0 "in queue Laser" kestctl print document.bin --port IP_RAW-kestmon
peer_received raw arrived && cmp arrived document.bin
expect 0 "in queue Labels" kestctl print document.bin --port IP_LPR-kestmon
peer_received lpr arrived && cmp arrived document.bin

say "they move back"
expect 0 "" kestctl port migrate --undo undo.json
[ "$(spooler printers)" = "$before" ] || fail "after --undo the printers are: $(spooler printers)"
expect 0 "there is no port yet" kestctl port list
