#!/usr/bin/env bash
# Printers that answer SLP, DNS-SD or both, end to end: they are found, ports are added for them,
# and `port check --repair` follows one that only answers DNS-SD. dns_sd_ports.sh BIN-FOLDER
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

printers_network dns_sd_ports
mkdir "$work/jobs"
cp -r "$1" "$work/bin"
kestctl() { client_wine "$work/bin/kestctl.exe" --direct "$@" | tr -d '\r'; }
client_wine "$build/tests/spooler.exe" add-printer Control NUL: >/dev/null # --direct needs one
expect() { [ "$2" = "$3" ] || fail "$1: '$2' instead of '$3'"; }
# has NAME TEXT PART...
has() {
    local part
    for part in "${@:3}"; do
        [[ $2 == *"$part"* ]] || fail "$1: no '$part' in: $2"
    done
}

say "100 printers, of which 25 answer SLP, 50 DNS-SD, and 25 both"
list=$(announcement "{ip}" "{mac}" "slp-{n}" Model_A)
agents "service:printer first=10.77.1.1 count=50 list=$list"
dns_sd "first=10.77.1.26 count=75 name=prn"
begin=$(date +%s%N)
kestctl find >"$work/found"
say "found in $((($(date +%s%N) - begin) / 1000000)) ms, with the start of the program"
# row ADDRESS: the row of a printer, with single blanks
row() { tr -s ' ' <"$work/found" | grep -F " $1 "; }
expect "by SLP" "$(grep -c ' SLP$' "$work/found")" 25
expect "by DNS-SD" "$(grep -c ' DNS-SD$' "$work/found")" 50
expect "by both" "$(grep -c ' both$' "$work/found")" 25
has "by both" "$(row 10.77.1.50)" slp-49 "Model A"
expect "by DNS-SD" "$(row 10.77.1.100)" "prn-74 Model 74 10.77.1.100 - DNS-SD"
expect "--slp" "$(kestctl find --slp | grep -c ' SLP$')" 50
kestctl find --dns-sd --model 'Model 7?' --json >"$work/found"
expect "--dns-sd" "$(grep -c '"foundBy": "DNS-SD"' "$work/found")" 5
has "one" "$(kestctl find --host-name PRN-60.local)" 10.77.1.86 DNS-SD
has "one" "$(kestctl find --ip 10.77.1.87)" prn-61 DNS-SD

say "printers that a user adds"
note="This printer does not answer SLP. Jobs will not follow it; "
note+="\`kestctl port check --repair\` can."
printers "$work/jobs" 10.77.1.20 10.77.1.21 10.77.255.2
agents "service:printer first=10.77.1.20 list=$(announcement 10.77.1.20 0004004A1B2C prn-1 Model_1)"
dns_sd "first=10.77.1.21 name=quiet" "first=10.77.255.2 name=near"
has "RAW" "$(kestctl port add QUIET --follow 10.77.1.21)" "raw to 10.77.1.21:9100" quiet-0 "$note"
has "LPR" "$(kestctl port add SPOOLED --follow 10.77.1.21 --protocol lpr)" \
    "lpr to 10.77.1.21:515, queue queue-0" "$note"
has "port" "$(kestctl port add OTHER --follow 10.77.1.21 --port 9102)" "raw to 10.77.1.21:9102"
has "SLP" "$(kestctl port add OFFICE --follow 10.77.1.20)" "following 0004004A1B2C, prn-1"
kestctl port show QUIET --json >"$work/shown"
has "without always print" "$(cat "$work/shown")" '"alwaysPrint": false' '"hostName": "quiet-0"' \
    '"mac": ""'
mac=$(in_peer cat /sys/class/net/cable/address | tr -d : | tr a-f A-F)
has "neighbor" "$(kestctl port add NEAR --follow 10.77.255.2)" "$mac, near-0"
has "learn" "$(kestctl config learn 10.77.1.21 2>&1 || true)" \
    "answers DNS-SD but not SLP" "in the printer's web page, under network protocols"
kestctl port delete OTHER SPOOLED >/dev/null
expect "all are well" "$(kestctl port check | tail -1)" "3 ports: 3 ok"

say "the printer moves"
in_peer ip route add blackhole 10.77.1.21/32
printers "$work/jobs" 10.77.1.20 10.77.1.31 10.77.255.2
dns_sd "first=10.77.1.31 name=quiet" "first=10.77.255.2 name=near"
has "moved" "$(kestctl port check QUIET 2>/dev/null || true)" "moved" "found at 10.77.1.31"
has "repaired" "$(kestctl port check --repair)" "now sends to 10.77.1.31" "1 repaired"
expect "and checked again" "$(kestctl port check | tail -1)" "3 ports: 3 ok"
echo document >"$work/document"
rm -f "$work"/jobs/* # the connections of the checks are jobs of no bytes
kestctl print - --port QUIET --printer Control <"$work/document" >/dev/null
take_job "$work/jobs/10.77.1.31-1" "$work/document"
