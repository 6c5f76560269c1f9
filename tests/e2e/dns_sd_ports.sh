#!/usr/bin/env bash
# Printers that answer SLP, DNS-SD or both, end to end: they are found, ports are added for them, and
# `port check --repair` follows one that only announces itself by DNS-SD. dns_sd_ports.sh BIN-FOLDER
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

netns_need
netns_up
# shellcheck disable=SC2034 # moving.sh runs the printers there
printers_host=(ip netns exec "$peer_ns")
work=$(mktemp -d "$build/dns_sd_ports.XXXXXX")
at_exit "rm -rf '$work'"
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

say "100 printers, of which 50 answer SLP, 75 DNS-SD, and 25 both"
agents "service:printer first=10.77.1.1 count=50 \
list=$(announcement %a 0004000000%02x slp-%n Model_A)"
dns_sd "first=10.77.1.26 count=75 name=prn"
begin=$(date +%s%N)
kestctl find >"$work/found"
say "found in $((($(date +%s%N) - begin) / 1000000)) ms, program start included"
cat "$work/found" | head -60
