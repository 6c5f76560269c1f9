# shellcheck shell=bash
# shellcheck disable=SC2154 # build and root are set by script/common.sh
# Sourced, after script/common.sh, by what needs hosts of its own: two network namespaces joined
# by a cable. One is the client, where programs run under Wine with a prefix and a server of their
# own (Wine's server owns the sockets, so it has to live in there too); the other is the peer,
# where the caller starts what the client is to find. Everything in them ends with the script.
#
#   netns_allowed              whether this can work here: it needs root and the right to make them
#   netns_need                 ends a test as skipped (77) where it cannot; in CI, as failed
#   netns_up                   makes both, and the client's Wine prefix, from the template
#   in_client COMMAND...       runs something in the client
#   in_peer COMMAND...         runs something in the peer
#   client_wine PROGRAM...     runs a Windows program in the client
#   netns_down                 ends what runs in them and takes them away (also done at exit)
#
# The client is 10.77.255.1 and fd77::1, the peer 10.77.255.2 and fd77::2. The peer is also every
# host of 10.77.0.0/17, of fd77:0:0:1::/64 and, outside the client's subnet 10.77.0.0/16, of
# 10.79.0.0/17, so that one process there can play hundreds. The cable is called `cable` at both
# ends; multicast leaves by it.

client_ns=kest-$$-client
peer_ns=kest-$$-peer
client_prefix=

in_client() { "${priority[@]}" ip netns exec "$client_ns" "$@"; }
in_peer() { "${priority[@]}" ip netns exec "$peer_ns" "$@"; }
client_wine() { WINEPREFIX=$client_prefix in_client wine "$@"; }

netns_allowed() {
    [ "$(id -u)" -eq 0 ] && ip netns add "$peer_ns" 2>/dev/null && ip netns delete "$peer_ns"
}

netns_need() {
    netns_allowed && return
    [ "${CI:-}" != true ] || fail "network namespaces are not allowed here, and CI must have them"
    say "SKIPPED: this test needs root and the right to make network namespaces"
    exit 77
}

netns_up() {
    at_exit netns_down
    ip netns add "$client_ns"
    ip netns add "$peer_ns"
    ip -n "$client_ns" link add cable type veth peer name cable netns "$peer_ns"
    netns_host "$client_ns" 1
    netns_host "$peer_ns" 2
    ip -n "$peer_ns" route add local 10.77.0.0/17 dev lo
    ip -n "$peer_ns" route add local 10.79.0.0/17 dev lo
    ip -n "$peer_ns" -6 route add local fd77:0:0:1::/64 dev lo
    # By way of the peer's own address: hundreds of hosts, but one neighbor.
    ip -n "$client_ns" route add 10.77.0.0/17 via 10.77.255.2
    ip -n "$client_ns" route add 10.79.0.0/17 via 10.77.255.2
    ip -n "$client_ns" -6 route add fd77:0:0:1::/64 via fd77::2

    client_prefix=$(machine_folder)
    wine_copy "$client_prefix"
    WINEPREFIX=$client_prefix wine_start in_client
}

# Without `nodad` an address cannot be used for the first one or two seconds, in which the system
# looks for others that have it. The link-local address is the one that neighbors resolve others
# from, and that multicast is sent from.
netns_host() {
    ip -n "$1" link set lo up
    ip -n "$1" link set cable addrgenmode none
    ip -n "$1" address add "10.77.255.$2/16" dev cable
    ip -n "$1" -6 address add "fe80::$2/64" dev cable nodad
    ip -n "$1" -6 address add "fd77::$2/64" dev cable nodad
    ip -n "$1" link set cable up
    ip -n "$1" route add 224.0.0.0/4 dev cable
}

netns_down() {
    local ns pids
    [ -z "$client_prefix" ] || wine_discard "$client_prefix"
    client_prefix=
    for ns in "$client_ns" "$peer_ns"; do
        pids=$(ip netns pids "$ns" 2>/dev/null) || continue
        # shellcheck disable=SC2086 # a list of numbers
        [ -z "$pids" ] || kill -KILL $pids 2>/dev/null || true
        ip netns delete "$ns"
    done
}
