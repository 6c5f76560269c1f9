#!/usr/bin/env bash
# Runs a program that finds printers, in a network of its own with a population of them, some of
# it hostile, on the other end of the cable: population.sh FIND.exe
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

printers_network dns_sd
# On the client's link, unlike the other addresses of the peer.
in_peer ip -6 route add local fd77::1:0/112 dev lo

# expect NAME COUNT NETWORK FIRST: the printers that a search must find of a group
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

# finds GROUP...: that all that is expected is found, and besides the printers of floods nothing.
finds() {
    dns_sd "$@"
    client_wine "$find" >"$work/found" || fail "the query was not sent"
    tr -d '\r' <"$work/found" | sed '/^flood/d' | LC_ALL=C sort |
        diff <(LC_ALL=C sort "$work/expected") - ||
        fail "other printers are found than are there: $*"
}

find=$1
: >"$work/expected"
finds "first=10.77.1.1 name=off hostile=port"

# Each answer holds one kind of record: it takes three rounds to find such a printer.
expect bare 20 10.77.2. 1
expect baresix 10 fd77::1: 64
finds "first=10.77.2.1 count=20 name=bare bare" "first=fd77::1:40 count=10 name=baresix bare"

: >"$work/expected"
expect full 60 10.77.1. 1
expect deaf 10 10.77.3. 1
expect six 10 fd77::1: 1
finds \
    "first=10.77.1.1 count=60 name=full" \
    "first=10.77.3.1 count=10 name=deaf deaf=1" \
    "first=fd77::1:1 count=10 name=six" \
    "first=10.77.8.1 count=8 name=loop hostile=loop" \
    "first=10.77.9.1 count=8 name=lie hostile=lie" \
    "first=10.77.10.1 count=5 name=flood hostile=flood" \
    "first=10.77.11.1 count=5 name=id hostile=id" \
    "first=10.77.12.1 count=5 name=port hostile=port" \
    "first=10.79.1.1 count=5 name=elsewhere" \
    "first=fd77:0:0:1::1 count=4 name=elsewhere-six"
