#!/usr/bin/env bash
# Runs a program that finds printers, in a network of its own with a population of them, a fifth of
# it hostile, on the other end of the cable: population.sh FIND.exe
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

netns_need
netns_up
# shellcheck disable=SC2034 # moving.sh runs the printers there
printers_host=(ip netns exec "$peer_ns")
# On the client's link, unlike the other addresses of the peer.
in_peer ip -6 route add local fd77::1:0/112 dev lo
work=$(mktemp -d "$build/dns_sd.XXXXXX")
at_exit "rm -rf '$work'"

# expect NAME COUNT NETWORK FIRST: what is to be found of a group of printers
expect() {
    local n
    for ((n = 0; n < $2; n++)); do
        printf '%s;instance=%s;model=Model %s;url=http://%s/;uuid=uuid-%s;' \
            "$1-$n.local" "$1-$n" "$n" "$1-$n.local" "$n"
        [[ $3 == *: ]] && printf '%s%x' "$3" $(($4 + n)) || printf '%s%s' "$3" $(($4 + n))
        printf ';raw:9100:queue-%s;lpr:515:queue-%s;ipp:631:queue-%s;ipps:631:queue-%s\n' \
            "$n" "$n" "$n" "$n"
    done >>"$work/expected"
}

# finds GROUP...: that all that is expected is found, and besides the printers of floods nothing. A
# busy machine can lose datagrams, or answer after the 2.5 s that a search takes: it may try again.
finds() {
    local attempt
    dns_sd "$@"
    for attempt in 1 2 3; do
        client_wine "$find" >"$work/found" || fail "the query was not sent"
        tr -d '\r' <"$work/found" | sed '/^flood/d' | LC_ALL=C sort |
            diff <(LC_ALL=C sort "$work/expected") - >"$work/diff" && return
        say "attempt $attempt: $(grep -c '^[<>]' "$work/diff") differences"
    done
    cat "$work/diff"
    fail "other printers are found than are there: $*"
}

find=$1
: >"$work/expected"
finds "first=10.77.1.1 name=off hostile=port"

# Each answer holds one kind of record: it takes three rounds to find such a printer.
expect bare 40 10.77.2. 1
expect baresix 10 fd77::1: 64
finds "first=10.77.2.1 count=40 name=bare bare" "first=fd77::1:40 count=10 name=baresix bare"

: >"$work/expected"
expect full 130 10.77.1. 1
expect deaf 20 10.77.3. 1
expect six 10 fd77::1: 1
finds \
    "first=10.77.1.1 count=130 name=full" \
    "first=10.77.3.1 count=20 name=deaf deaf=1" \
    "first=fd77::1:1 count=10 name=six" \
    "first=10.77.8.1 count=8 name=loop hostile=loop" \
    "first=10.77.9.1 count=8 name=lie hostile=lie" \
    "first=10.77.10.1 count=5 name=flood hostile=flood" \
    "first=10.77.11.1 count=5 name=id hostile=id" \
    "first=10.77.12.1 count=5 name=port hostile=port" \
    "first=10.79.1.1 count=5 name=elsewhere" \
    "first=fd77:0:0:1::1 count=4 name=elsewhere-six"
