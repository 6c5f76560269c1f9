#!/usr/bin/env bash
# Runs a program that finds printers, in a network of its own with Avahi, a responder that this
# project did not write, on the other end of the cable: avahi.sh FIND.exe
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"

netns_need
netns_up
work=$(mktemp -d "$build/avahi.XXXXXX")
at_exit "rm -rf '$work'"

# avahi-publish reaches the daemon by a message bus, which has to be another than the machine's.
export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$work/bus
cat >"$work/bus.conf" <<END
<busconfig>
  <type>session</type>
  <listen>$DBUS_SYSTEM_BUS_ADDRESS</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
END
cat >"$work/avahi.conf" <<'END'
[server]
host-name=prn-office
allow-interfaces=cable
END
# Its services and its process file are where those of the machine's own daemon would be. The folder
# of services is hidden by the empty one.
mkdir "$work/run" "$work/services"
in_peer dbus-daemon --nofork --config-file="$work/bus.conf" >"$work/bus.log" 2>&1 &
in_peer unshare --mount bash -c "
    mkdir -p /run/avahi-daemon /etc/avahi/services
    mount --bind '$work/run' /run/avahi-daemon
    mount --bind '$work/services' /etc/avahi/services
    until [ -S '$work/bus' ]; do sleep 0.05; done
    exec avahi-daemon -f '$work/avahi.conf' --no-drop-root --no-rlimits --no-chroot" \
    >"$work/avahi.log" 2>&1 &

# publish ARGUMENT...: has Avahi announce something, and waits until it does
publish() {
    local log tries
    log=$(mktemp "$work/publish.XXXXXX")
    in_peer avahi-publish "$@" >"$log" 2>&1 &
    for ((tries = 0; tries < 400; tries++)); do
        ! grep -q '^Established' "$log" || return 0
        is_running $! || break
        sleep 0.05
    done
    cat "$work"/*.log "$log" >&2
    fail "Avahi does not announce: $*"
}

is_running() { kill -0 "$1" 2>/dev/null; }

for ((tries = 0; tries < 400; tries++)); do
    ! grep -q 'Server startup complete' "$work/avahi.log" || break
    sleep 0.05
done
publish -s "Büro 2. OG" _pdl-datastream._tcp 9100 "ty=Acme 1 \"ü\"" UUID=1234 product=\(None\)
publish -s "Büro 2. OG" _printer._tcp 515 rp=lp "ty=Acme 1"
publish -s "Büro 2. OG" _ipp._tcp 631 rp=ipp/print adminurl=http://prn-office.local/
publish -s "Web" _http._tcp 80
publish -a -R other.local 10.77.1.9
publish -H other.local -s "$(printf 'long\033 %.0s' {1..10})" _ipps._tcp 443 "product=(Acme 2)"
publish -H other.local -s "None" _printer._tcp 0

client_wine "$1" >"$work/found" || fail "the query was not sent"
tr -d '\r' <"$work/found" | diff - <(
    echo "other.local;instance=;model=Acme 2;url=;uuid=;10.77.1.9;ipps:443:"
    echo "prn-office.local;instance=Büro 2. OG;model=Acme 1 \"ü\";url=http://prn-office.local/;\
uuid=1234;10.77.255.2;fd77::2;raw:9100:;lpr:515:lp;ipp:631:ipp/print"
) || fail "other printers are found than Avahi announces"
