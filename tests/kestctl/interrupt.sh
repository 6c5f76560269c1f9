#!/usr/bin/env bash
# Ctrl-C ends every command that waits, with exit code 130. interrupt.sh BIN-FOLDER
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"

netns_need
netns_up
work=$(mktemp -d "$build/interrupt.XXXXXX")
at_exit "rm -rf '$work'"
cp -r "$1" "$work/bin"
export WINEPREFIX=$client_prefix
kestctl=(wine "$work/bin/kestctl.exe" --direct)

# Nothing answers at 10.77.1.2, not even with a refusal.
in_peer ip route add blackhole 10.77.1.2/32
{
    echo name,address
    for n in {1..3}; do echo "DARK-$n,10.77.1.2"; done
} >"$work/ports.csv"
in_client "${kestctl[@]}" port import "Z:$work/ports.csv" >/dev/null
{
    echo name,address,follow
    for n in {1..3}; do echo "LATE-$n,10.77.1.2,yes"; done
} >"$work/late.csv"
in_client "${kestctl[@]}" port export >"$work/before.json"
monitors='HKLM\SYSTEM\CurrentControlSet\Control\Print\Monitors'
standard=$monitors'\Standard TCP/IP Port\Ports\IP_10.77.1.2'
in_client wine "$build/tests/spooler.exe" add-printer Control NUL: >/dev/null
in_client wine reg add "$standard" /v HostName /d 10.77.1.2 >/dev/null
in_client wine reg add "$standard" /v Protocol /t REG_DWORD /d 1 >/dev/null

# interrupt TEXT ARGUMENT...: runs kestctl, and presses Ctrl-C when TEXT is on its screen.
interrupt() {
    local text=$1 code=0
    shift
    in_client "$root/tests/support/ctrl_c.py" "$text" "${kestctl[@]}" "$@" || code=$?
    [ "$code" -eq 130 ] || fail "kestctl $*: exit code $code instead of 130"
}

interrupt searching find
interrupt searching find --ip 10.77.1.2
interrupt watching find --watch
interrupt asking slp find
interrupt asking ping 10.77.1.2
interrupt asking config learn 10.77.1.2
interrupt asking port test DARK-1
interrupt "of 3 ports" port check
interrupt asking port add NEW --follow 10.77.1.2
interrupt asking port set "DARK-*" --follow --yes
interrupt "asking the network" port import "Z:$work/late.csv"
interrupt planning port migrate --follow --dry-run
interrupt "[y/N]" port migrate
interrupt "Continue to" port delete "DARK-*"
interrupt connecting print "Z:$work/ports.csv" --port DARK-1 --printer Control
in_client "${kestctl[@]}" port export >"$work/after.json"
[ "$(grep -c '"name": "DARK-' "$work/before.json")" = 3 ] || fail "the ports were not exported"
cmp "$work/before.json" "$work/after.json" || fail "the ports were changed"
