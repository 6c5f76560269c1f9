#!/usr/bin/env bash
# A print server's worth of ports, end to end: thirty printers in a network of their own, of which
# some have moved, some are dark and one has taken another's address. fleet.sh BIN-FOLDER
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

printers_network fleet
mkdir "$work/jobs"
cp -r "$1" "$work/bin"
kestctl() { client_wine "$work/bin/kestctl.exe" --direct "$@"; }
client_wine "$build/tests/spooler.exe" add-printer Control NUL: >/dev/null # --direct needs one
expect() { [ "$2" = "$3" ] || fail "$1: '$2' instead of '$3'"; }

# Printer N had 10.77.1.N when its port was made. 21 to 26 have moved to 10.77.3.N, and 27 to where
# 28 was, which is at 10.77.3.28 now; 29 and 30 are dark, and 20 says nothing of itself.
for n in {21..27} 29 30; do
    in_peer ip route add blackhole "10.77.1.$n/32"
done
csv="name;address;mac;hostName;alwaysPrint"
addresses=()
groups=()
for n in {1..30}; do
    mac=0004000000$(printf %02X "$n")
    csv+=$'\r\n'"PRN-$n;10.77.1.$n;$mac;;yes"
    case $n in
        29 | 30) continue ;;
        27) at=10.77.1.28 ;;
        2[1-8]) at=10.77.3.$n ;;
        *) at=10.77.1.$n ;;
    esac
    addresses+=("$at")
    [ "$n" = 20 ] ||
        groups+=("service:printer first=$at list=$(announcement "$at" "$mac" "prn-$n" Model_100)")
done
printers "$work/jobs" "${addresses[@]}"
agents "${groups[@]}"

say "thirty ports from a spreadsheet"
printf '\xef\xbb\xbf%s' "$csv" >"$work/ports.csv"
expect "import" "$(kestctl port import "$work/ports.csv" | tail -1)" \
    "30 added, 0 changed, 0 unchanged"

say "which are well?"
code=0
kestctl port check >"$work/checked" 2>"$work/errors" || code=$?
expect "exit code" "$code" 1
expect "summary" "$(tail -1 "$work/checked")" \
    "30 ports: 19 ok, 2 unreachable, 7 moved, 1 another printer, 1 not recognised"
row() { grep -F "PRN-$1 " "$work/checked" | tr -s ' '; }
expect "one that says nothing" "$(row 20)" \
    "PRN-20 10.77.1.20:9100 not recognised does not say who it is"
expect "one that moved" "$(row 21)" "PRN-21 10.77.1.21:9100 moved found at 10.77.3.21"
expect "one that took an address" "$(row 27)" "PRN-27 10.77.1.27:9100 moved found at 10.77.1.28"
expect "whose it was" "$(row 28)" \
    "PRN-28 10.77.1.28:9100 another printer is 00040000001B, prn-27; found at 10.77.3.28"
grep -qF -- "--repair" "$work/errors" || fail "nobody says how to repair it: $(cat "$work/errors")"

say "repair"
kestctl port check --repair --json >"$work/repaired" 2>/dev/null || true
expect "repaired" "$(grep -c '"repaired": true' "$work/repaired")" 8
expect "and checked again" "$(kestctl port check 2>/dev/null | tail -1)" \
    "30 ports: 27 ok, 2 unreachable, 1 not recognised"
echo document >"$work/document"
rm -f "$work"/jobs/*  # the connections of the checks are jobs of no bytes
kestctl print - --port PRN-28 --printer Control <"$work/document" >/dev/null
take_job "$work/jobs/10.77.3.28-1" "$work/document"
[[ $(kestctl port test PRN-28) == *"accepts connections"*"printer there: 00040000001C, prn-28" ]] ||
    fail "kestctl port test says: $(kestctl port test PRN-28)"
expect "all that is well" "$(kestctl port check 'PRN-1?' PRN-2 2>&1 | tail -1)" "11 ports: 11 ok"

say "no SLPConf.xml, and one that reads no printer's MAC address"
mv "$work/bin/SLPConf.xml" "$work/SLPConf.xml"
for change in '' 's/mac-address/x-mac/; s/host-name/x-name/'; do
    state="no configuration"
    if [ -n "$change" ]; then
        state="not recognised"
        sed "$change" "$work/SLPConf.xml" >"$work/bin/SLPConf.xml"
    fi
    code=0
    kestctl port check 'PRN-1?' >"$work/checked" 2>/dev/null || code=$?
    expect "exit code" "$code" 1
    expect "summary" "$(tail -1 "$work/checked")" "10 ports: 10 $state"
done
mv "$work/SLPConf.xml" "$work/bin/SLPConf.xml"

say "three hundred, half of them dark, and the others silent, to pings as well"
in_peer ip route add blackhole 10.77.2.0/24
in_peer sysctl -qw net.ipv4.icmp_echo_ignore_all=1 || say "(they answer pings here)"
{
    echo name,address
    for n in {1..150}; do
        echo "WIDE-$n,10.77.1.20"
        echo "DARK-$n,10.77.2.$n"
    done
} >"$work/ports.csv"
kestctl port import "$work/ports.csv" >/dev/null
kestctl port check 'WIDE-*' 'DARK-*' >"$work/checked" 2>/dev/null || true
expect "summary" "$(tail -1 "$work/checked")" "300 ports: 150 ok, 150 unreachable"
