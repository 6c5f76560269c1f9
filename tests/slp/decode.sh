#!/usr/bin/env bash
# Has tshark, a decoder of somebody else's, read what a test program and kestctl send and receive
# when they search: decode.sh PROGRAM.exe KESTCTL.exe
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

printers_network decode
capture=$work/wire.pcapng

# The decoder takes every version 1 list for that of one particular service; these are empty.
agents "service:wire first=10.77.1.1 list=(ip={ip}),color" \
    "service:old first=10.77.1.2 version=1 list=" \
    "service:busy first=10.77.1.3 error=6" \
    "service:long first=10.77.1.4 tcp=whole list=(x=$(printf 'x%.0s' {1..9000}))" \
    "service:oldlong first=10.77.1.5 version=1 tcp=whole list=" \
    "service:many first=10.77.1.7 list=(ip={ip})" \
    "service:six first=fd77:0:0:1::1 count=20"

# decode FILTER ARGUMENT...: the frames that a filter selects, as the decoder shows them
decode() { tshark -r "$capture" -Y "$@" 2>"$work/errors"; }

ip netns exec "$client_ns" tshark -q -i cable -w "$capture" -f 'port 427 or udp portrange 9-10' \
    >"$work/tshark" 2>&1 &
tshark_pid=$!
at_exit "kill $tshark_pid 2>/dev/null || true"

# await_frame PORT: sends frames to a UDP port until one is in the file. Frames that were sent
# before it are in the file, too.
await_frame() {
    local tries=0
    until [ -n "$(decode "udp.dstport == $1" || true)" ]; do
        is_alive "$tshark_pid" || fail "tshark has ended: $(cat "$work/tshark")"
        [ $((tries += 1)) -le 300 ] ||
            fail "nothing is captured: $(cat "$work/errors" "$work/tshark")"
        in_client bash -c "echo mark >/dev/udp/10.77.255.2/$1"
        sleep 0.2
    done
}
await_frame 9 # tshark reports that it captures before it does

client_wine "$1" --gtest_filter='Population.Six*'
! client_wine "$2" slp find service:busy >/dev/null 2>&1 || fail "an error is taken for an answer"
for find in service:wire "service:wire --unicast 10.77.1.1" service:long "service:old --version 1" \
    "service:oldlong --version 1"; do
    # shellcheck disable=SC2086 # a list of arguments
    client_wine "$2" slp find $find >/dev/null
done
await_frame 10

columns() { decode "$1" -T fields -E 'separator=;' "${@:2}" | LC_ALL=C sort -u; }

# Repetitions of the same request count once: how many there are is a matter of time. A repetition
# that names some of the 20 agents with IPv6 was sent between their answers and does not count.
six=$(printf 'fd77:0:0:1::%x,' {1..20})
diff - <(columns 'srvloc.function == 6' -e ip.dst -e ipv6.dst -e tcp.dstport -e srvloc.version \
    -e srvloc.flags_v1 -e srvloc.flags_v2 -e srvloc.langtag -e srvloc.attrreq.url \
    -e srvloc.attrreq.scopelist -e srvloc.attrreq.prlist |
    grep -vE ';(fd77[^,;]*,?){1,19}$') <<END ||
10.77.1.1;;;2;;0x0000;en;service:wire;DEFAULT;
10.77.1.4;;427;2;;0x0000;en;service:long;DEFAULT;
10.77.1.5;;427;1;0x00;;;service:oldlong;;
10.77.1.7;;;2;;0x0000;en;service:many;DEFAULT;
224.0.1.22;;;1;0x00;;;service:old;;
224.0.1.22;;;1;0x00;;;service:old;;10.77.1.2
224.0.1.22;;;1;0x00;;;service:oldlong;;
224.0.1.22;;;1;0x00;;;service:oldlong;;10.77.1.5
239.255.255.253;;;2;;0x2000;en;service:busy;DEFAULT;
239.255.255.253;;;2;;0x2000;en;service:long;DEFAULT;
239.255.255.253;;;2;;0x2000;en;service:long;DEFAULT;10.77.1.4
239.255.255.253;;;2;;0x2000;en;service:wire;DEFAULT;
239.255.255.253;;;2;;0x2000;en;service:wire;DEFAULT;10.77.1.1
;fd77:0:0:1::5;;2;;0x0000;en;service:six;DEFAULT;
;ff02::116;;2;;0x2000;en;service:six;DEFAULT;
;ff02::116;;2;;0x2000;en;service:six;DEFAULT;${six%,}
END
    fail "tshark reads the requests differently"

diff - <(columns 'srvloc.function == 7 and !ipv6' -e ip.src -e tcp.srcport -e srvloc.version \
    -e srvloc.flags_v1 -e srvloc.flags_v2 -e srvloc.errv2 \
    -e srvloc.attrrply.attrlistlen) <<'END' || fail "tshark reads the replies differently"
10.77.1.1;;2;;0x0000;0;20
10.77.1.2;;1;0x00;;0;0
10.77.1.3;;2;;0x0000;6;0
10.77.1.4;427;2;;0x0000;0;9004
10.77.1.4;;2;;0x8000;0;1300
10.77.1.5;427;1;0x00;;0;0
10.77.1.5;;1;0x80;;0;0
10.77.1.7;;2;;0x0000;0;14
END

decode srvloc -O srvloc >"$work/decoded"
! grep -iE 'malformed|unknown|illegal' "$work/decoded" || fail "tshark cannot read all of it"
count() { grep -c "$1" "$work/decoded"; }
[ "$(count 'Version: 1')" -eq "$(count 'Encoding: UTF-8 (106)')" ] ||
    fail "a version 1 message is not in UTF-8"
# A UDP header has 8 bytes; the rest is the message, of which nothing is left over.
decode 'srvloc and udp' -T fields -e udp.length -e srvloc.pktlen |
    awk '$1 != $2 + 8 { print; wrong = 1 } END { exit wrong }' ||
    fail "a message is not as long as it says"
