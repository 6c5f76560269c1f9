#!/usr/bin/env bash
# Runs a test program, and kestctl, in a network of its own, with the service agents that they
# expect on the other end of the cable: population.sh PROGRAM.exe KESTCTL.exe
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

netns_need
netns_up
# shellcheck disable=SC2034 # moving.sh runs the agents there
printers_host=(ip netns exec "$peer_ns")

long="(ip={ip}),(x=$(printf 'x%.0s' {1..20000})),(end=here)"
giant="(ip={ip}),(x=$(printf '\001%.0s' {1..60000}))"
ordinary="(ip={ip}),(mac={mac}),(x=$(printf 'x%.0s' {1..1500}))"
population=(
    "service:many first=10.77.1.0 count=500 copies=2"
    "service:old first=10.77.1.0 count=100 version=1"
    "service:some first=10.77.1.0 count=60"
    "service:mixed first=10.77.1.0 count=10"
    "service:mixed first=10.77.1.10 count=10 deaf=2"
    "service:mixed first=10.77.1.20 count=10 delay=0.3-0.9"
    "service:long first=10.77.1.0 count=50 tcp=whole list=$long"
    "service:oldlong first=10.77.1.0 count=5 version=1 tcp=whole list=$long"
    "service:hostile first=10.77.1.0 count=70 tcp=stall"
    "service:hostile first=10.77.2.0 count=10 tcp=drip"
    "service:hostile first=10.77.3.0 count=5 tcp=endless"
    "service:hostile first=10.77.4.0 count=5 tcp=cut"
    "service:hostile first=10.77.5.0 count=5 tcp=refuse"
    "service:hostile first=10.77.64.0 count=10"
    "service:hostile first=10.77.64.10 count=10 tcp=whole list=$long"
    "service:stalling first=10.77.1.0 count=512 tcp=second"
    "service:stalling first=10.77.64.0"
    "service:slow first=10.77.1.0 count=128 tcp=late"
    "service:crowd first=10.77.1.0 count=5000"
    "service:office first=10.77.64.0 count=20 list=$giant"
    "service:office first=10.77.65.0 count=300 error=6"
    "service:office first=10.79.1.0 count=100 tcp=stall"
    "service:office first=10.77.1.0 count=100 list=$ordinary"
    "service:near first=10.77.1.0 count=100 tcp=whole"
    "service:far first=10.79.1.0 count=100 tcp=whole"
    "service:shown first=10.77.1.7 list=(ip={ip}),empty,(place=2nd\\2C_left\\1B[2J)"
    "service:six first=fd77:0:0:1::1 count=20"
)
agents "${population[@]}"

client_wine "$1"

shown=$(client_wine "$2" slp find service:shown --interface 10.77.255.1)
[ "$shown" = "list 1
  ip     10.77.1.7
  empty
  place  2nd, left?[2J
1 list received" ] || fail "kestctl slp find shows: $shown"
if shown=$(client_wine "$2" slp find service:six 2>&1); then
    fail "agents with IPv6 only answer a search by IPv4: $shown"
fi
six=(service:six --unicast fd77:0:0:1::3)
prints '"ip": "fd77:0:0:1::3"' client_wine "$2" slp find "${six[@]}" --json ||
    fail "kestctl slp find --json does not show the agent"
