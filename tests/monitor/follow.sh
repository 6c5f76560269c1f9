#!/usr/bin/env bash
# Ports that follow their printers, end to end: the shipped files carry jobs through kestctl in a
# network of their own, to printers that move. follow.sh BIN-FOLDER JOB_STARTS.exe
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/netns.sh"
. "$root/tests/support/moving.sh"

printers_network follow
mkdir "$work/jobs"
bin=$work/bin
cp -r "$1" "$bin"
log=$(echo "$client_prefix"/drive_c/users/*/Temp)/KestSetupWizard.log
touch "$log"

windows_path() { echo "Z:${1//\//\\}"; }

kestctl() { client_wine "$bin/kestctl.exe" --direct "$@"; }
client_wine "$build/tests/spooler.exe" add-printer Control NUL: >/dev/null # --direct needs one

# What answers: ATTRIBUTE-LIST..., the first at once, each other one 0.1 s later.
announce() {
    local list groups=() number=0
    for list in "$@"; do
        groups+=("service:printer first=10.77.9.$((++number)) delay=0.$((number - 1)) list=$list")
    done
    agents "${groups[@]}"
}

# expect WHAT IS SHOULD-BE
expect() { [ "$2" = "$3" ] || fail "$1: '$2' instead of '$3'"; }

setting() {
    kestctl port show "$1" --json | python3 -c "import json,sys; print(json.load(sys.stdin)['$2'])"
}

# job PORT ADDRESS: prints a document of its own, which has to arrive there byte for byte.
jobs=0
job() {
    local port=$1 address=$2 before
    before=$(find "$work/jobs" -name "$address-*" | wc -l)
    head -c $((100000 + ++jobs)) /dev/urandom >"$work/document-$port"
    kestctl print "$work/document-$port" --port "$port" --printer Control >/dev/null ||
        fail "port $port: the job was not printed"
    take_job "$work/jobs/$address-$((before + 1))" "$work/document-$port"
}

# no_job PORT TEXT: a job is not printed, and the reason given has the text.
no_job() {
    local answer
    if answer=$(kestctl print "$work/document" --port "$1" --printer Control 2>&1); then
        fail "port $1: a job that cannot have been printed"
    fi
    [[ $answer == *"$2"* ]] || fail "port $1: no '$2' in: $answer"
}

# logged COUNT TEXT: how many lines of the log have the text since the last `forget`.
logged() { expect "lines with '$2'" "$(tail -n "+$log_seen" "$log" | grep -cF "$2")" "$1"; }
forget() { log_seen=$(($(wc -l <"$log") + 1)); }

other=$(announcement 10.77.1.99 000400000099 other Other_1)
echo document >"$work/document"

say "a RAW printer moves"
forget
printers "$work/jobs" 10.77.1.20
agents "service:printer first=10.77.1.20 \
list=$(announcement 10.77.1.20 0004004A1B2C prn-1 Model_100)"
kestctl port add RAW --address 10.77.1.20 >/dev/null
expect "following" "$(kestctl port set RAW --follow 10.77.1.20 | head -1)" \
    "port RAW set: raw to 10.77.1.20:9100, following 0004004A1B2C, prn-1"
job RAW 10.77.1.20
printers "$work/jobs" 10.77.1.31
announce "$other" "$(announcement 10.77.1.31 0004004A1B2C prn-1 Model_100)"
forget
job RAW 10.77.1.31
logged 1 "Find specific mac"
logged 1 "Successfull!!!"
expect "the address kept" "$(setting RAW address)" 10.77.1.31
forget
job RAW 10.77.1.31
logged 0 "Searching for a printer"

say "an LPR printer moves, and has another MAC address now: its name is the same"
kestctl port add LPR --protocol lpr --double-spool --address 10.77.1.22 --mac 000400000022 \
    --host-name PRN-2 --always-print >/dev/null
printers "$work/jobs" 10.77.1.33
announce "$other" "$(announcement 10.77.1.33 000400000033 prn-2 Model_200)"
forget
job LPR 10.77.1.33
logged 2 "Using IPv4 Multicast Address = 239.255.255.253"
logged 1 "Find specific hostname"
expect "the address kept" "$(setting LPR address)" 10.77.1.33
job LPR 10.77.1.33

say "the printer has IPv6 only"
kestctl port add SIX --address 10.77.1.23 --mac 000400000023 --always-print >/dev/null
printers "$work/jobs" fd77:0:0:1::23
announce "$(announcement fd77:0:0:1::23 000400000023 prn-3 Model_300)"
job SIX fd77:0:0:1::23
expect "the address kept" "$(setting SIX ipv6Host)" fd77:0:0:1::23
expect "the old one" "$(setting SIX address)" 10.77.1.23
job SIX fd77:0:0:1::23

say "somebody else has the printer's name and answers first"
kestctl port add NAMESAKE --address 10.77.1.24 --mac 000400000024 --host-name prn-4 \
    --always-print >/dev/null
printers "$work/jobs" 10.77.1.35 10.77.1.98
announce "$(announcement 10.77.1.98 000400000098 prn-4 Model_400)" \
    "$(announcement 10.77.1.35 000400000024 prn-4 Model_400)"
job NAMESAKE 10.77.1.35

say "five ports search at once"
addresses=()
lists=()
for n in 1 2 3 4 5; do
    kestctl port add "MANY$n" --address "10.77.1.4$n" --mac "00040000004$n" \
        --always-print >/dev/null
    addresses+=("10.77.1.5$n")
    lists+=("$(announcement "10.77.1.5$n" "00040000004$n" "prn-4$n" Model_500)")
done
printers "$work/jobs" "${addresses[@]}"
announce "${lists[@]}"
head -c 100000 /dev/urandom >"$work/document-MANY"
client_wine "$2" "$(windows_path "$bin/kestmon.dll")" "$work/document-MANY" MANY{1..5} ||
    fail "one of five ports did not print"
for n in 1 2 3 4 5; do
    take_job "$work/jobs/10.77.1.5$n-1" "$work/document-MANY"
done

say "kestctl find"
expect "all printers" "$(kestctl find)" \
    "NAME               MODEL                ADDRESS          MAC           FOUND BY
$(for n in 1 2 3 4 5; do
        printf '%-17s  %-19s  %-15s  %s  SLP\n' "prn-4$n" "Model 500" "10.77.1.5$n" \
            "00040000004$n"
    done)"
prints '"address": "10.77.1.53"' kestctl find --mac 00:04:00:00:00:43 --json ||
    fail "kestctl find --mac does not find its printer"
prints 10.77.1.52 kestctl find --host-name PRN-42 ||
    fail "kestctl find --host-name does not find its printer"
if said=$(kestctl find --model 'Laser*' 2>&1); then
    fail "kestctl find finds a model that is not there"
fi
[[ $said == *"kestctl slp find"* ]] || fail "kestctl find gives no hint: $said"
announce "(no=address)" "(none=either)"
if said=$(kestctl find 2>&1); then
    fail "kestctl find finds printers without an address"
fi
[[ $said == *"2 printers answered, but without an address"* ]] ||
    fail "kestctl find says only: $said"
# not_at TEXT: a printer answers at its address, and is none that can be followed; why is said.
not_at() {
    if said=$(kestctl find --ip 10.77.9.1 2>&1); then
        fail "kestctl find --ip finds what is not there: $said"
    fi
    expect "kestctl find --ip" "$said" "kestctl: the printer at 10.77.9.1 answered, but $1"
}
many=$(printf '(\xc3\xa4%.0s=1),' {1..200})
announce $'(ip=10.77.9.1),(es\033cx=),'"$many"
not_at "announces no address under \`ip-address\`, which SLPConf.xml names; it announces: \
ip, es?cx$(printf ', \xc3\xa4%.0s' {1..72}), ..."
announce "$(announcement 10.77.9.9 00040000004a bueroe Model_100)"
not_at "announces 10.77.9.9 as its address under \`ip-address\`, which SLPConf.xml names; it \
announces: ip-address, mac-address, host-name, printer-device-id"
announce "(ip-address=10.77.9.1),(printer-device-id=MDL)"
not_at "its device identifier is too short for the keys of model and description that \
SLPConf.xml names"
announce "$(announcement 10.77.9.1 00040000004a Büro Model_100)"
expect "a name with an umlaut" "$(kestctl find --ip 10.77.9.1)" \
    "NAME               MODEL                ADDRESS          MAC           FOUND BY
Büro               Model 100            10.77.9.1        00040000004A  SLP"
[[ $(kestctl find --json) == *'"hostName": "Büro"'*'"mac": "00040000004A"'* ]] ||
    fail "kestctl find --json calls them otherwise than kestctl port"

say "kestctl config learn: a make with tags, a service type and a version of its own"
agents "service:x-acme version=1 first=10.77.1.60 list=(x-net=10.77.1.60),(x-hw=000400000060),\
(x-serial=0023456789AB),(x-host=prn-6),(x-id=MFG:Acme;MDL:Model_600;DES:Hall;)"
cp "$bin/SLPConf.xml" "$work/shipped.xml"
if said=$(kestctl config learn 10.77.1.60 2>&1); then
    fail "kestctl config learn knows what nobody told it: $said"
fi
[[ $said == *"did not answer under any of 6 service types"* ]] || fail "config learn: $said"
kestctl port add ACME --address 10.77.1.60 --mac 000400000060 --always-print >/dev/null
if said=$(kestctl config check 2>&1); then
    fail "kestctl config check is content with a file that no printer fits: $said"
fi
[[ $said == *"recognizes no port's printer"* ]] || fail "kestctl config check: $said"
kestctl config learn 10.77.1.60 --service service:x-acme >"$work/said"
[[ $(kestctl config learn 10.77.1.60 --service service:x-acme --json | tr -s ' \n' ' ') == \
    *'"mac_addr_key": { "recognised": true, "says": "000400000060", "value": "x-hw", '* ]] ||
    fail "kestctl config learn --json does not say what it took for the MAC address"
cmp "$work/shipped.xml" "$bin/SLPConf.xml" || fail "kestctl config learn writes unasked"
grep -q '^note: .x-serial. fits <mac_addr_key>' "$work/said" || fail "$(cat "$work/said")"
kestctl config learn 10.77.1.60 --service service:x-acme --write >"$work/said" ||
    fail "kestctl config learn --write: $(cat "$work/said")"
expect "searches" "$(grep -c '^a search by .*: *found$' "$work/said")" 2
cmp "$work/shipped.xml" "$bin/SLPConf.xml.old" || fail "the old SLPConf.xml is not kept"
[[ $(kestctl config check) == *"no problem" ]] || fail "what was learned has problems"
[[ $(kestctl config show) == *SLPConf.xml*"mac_addr_key "*" x-hw"* ]] || fail "config show"
prints 10.77.1.60 kestctl find --mac 000400000060 || fail "the learned printer is not found"
cp "$bin/SLPConf.xml" "$work/learned.xml"

kestctl port delete ACME >/dev/null
say "an old file that finds more stays; one that is wrong is told"
agents "service:x-acme version=1 first=10.77.1.60 list=(x-net=10.77.1.60),(x-hw=000400000060)" \
    "service:printer first=10.77.1.60 unicast \
list=$(announcement 10.77.1.60 000400000060 prn-6 Model)"
if said=$(kestctl config learn 10.77.1.60 --write 2>&1); then
    fail "kestctl config learn --write keeps a worse file: $said"
fi
cmp "$work/learned.xml" "$bin/SLPConf.xml" || fail "the old file is gone: $said"
sed -i 's/>1</>2</' "$bin/SLPConf.xml"
if said=$(kestctl config check 2>&1); then
    fail "kestctl config check finds nothing: $said"
fi
[[ $said == "line 10: <multicast_address> is the group of the other version"* ]] || fail "$said"
cp "$work/shipped.xml" "$bin/SLPConf.xml"

say "a second make: the first one's printers are still found, or nothing is written"
first=()
for n in 1 2 3; do
    kestctl port add "FIRST$n" --address "10.77.1.7$n" --mac "00040000007$n" >/dev/null
    first+=("service:printer first=10.77.1.7$n \
list=$(announcement "10.77.1.7$n" "00040000007$n" "prn-7$n" Model)")
done
agents "${first[@]}" \
    "service:printer first=10.77.1.70 list=(x-net=10.77.1.70),(x-hw=000400000070),(x-host=prn-70)" \
    "service:x-acme version=1 first=10.77.1.60 list=(x-net=10.77.1.60),(x-hw=000400000060)"
set -m # a group of its own, which hears Ctrl-C
kestctl config learn 10.77.1.70 --write >/dev/null 2>&1 &
learner=$!
set +m
tries=0
until [ -e "$bin/SLPConf.xml.new" ]; do
    [ $((tries += 1)) -le 300 ] || fail "kestctl config learn --write tries nothing"
    sleep 0.05
done
kill -INT -- "-$learner"
code=0
wait "$learner" || code=$?
expect "exit code after Ctrl-C" "$code" 130
cmp "$work/shipped.xml" "$bin/SLPConf.xml" || fail "Ctrl-C leaves another SLPConf.xml"
[ ! -e "$bin/SLPConf.xml.new" ] || fail "Ctrl-C leaves the file that was tried"
kestctl config learn 10.77.1.70 --write >"$work/said" 2>&1 || fail "$(cat "$work/said")"
grep -qF "for other printers of your ports: <ip_addr_key> ip-address, <ip_addr2_key> x-net, \
<mac_addr_key> mac-address" "$work/said" || fail "what was kept: $(cat "$work/said")"
expect "printers of both makes" "$(kestctl find --json | grep -c '"address"')" 4
cp "$bin/SLPConf.xml" "$work/both.xml"
if kestctl config learn 10.77.1.60 --service service:x-acme --write >"$work/said" 2>&1; then
    fail "kestctl config learn --write loses printers: $(cat "$work/said")"
fi
grep -qx "3 printers of your ports would no longer be found" "$work/said" ||
    fail "what would be lost: $(cat "$work/said")"
cmp "$work/both.xml" "$bin/SLPConf.xml" || fail "kestctl config learn --write loses printers"
kestctl config learn 10.77.1.60 --service service:x-acme --write --force >/dev/null
expect "printers of the forced make" "$(kestctl find --json | grep -c '"address"')" 1
kestctl config restore >/dev/null
cmp "$work/both.xml" "$bin/SLPConf.xml" || fail "kestctl config restore brings back another file"
cp "$work/shipped.xml" "$bin/SLPConf.xml"

say "kestctl find --watch: printers come, one moves, one goes"
home() {
    agents "service:printer first=10.77.1.61 \
list=$(announcement "$1" 000400000061 prn-61 Model)" "${@:2}"
}
home 10.77.1.61 "service:printer first=10.77.1.62 list=$(announcement 10.77.1.62 none prn-62 Model)"
set -m # a group of its own, which hears Ctrl-C
kestctl find --watch --json >"$work/watched" &
watcher=$!
set +m
watched() { # TEXT: a line with it comes
    local tries=0
    until grep -q "$1" "$work/watched"; do
        [ $((tries += 1)) -le 600 ] || fail "no $1 in: $(cat "$work/watched")"
        sleep 0.1
    done
}
watched '"came".*prn-61'
watched '"came".*prn-62'
home 10.77.1.63
watched '"address":"10.77.1.63","addressBefore":"10.77.1.61","event":"moved"'
watched '"address":"10.77.1.62","event":"went"'
expect "events" "$(wc -l <"$work/watched")" 4
kill -INT -- "-$watcher"
watched '"came":2,"event":"end","here":1,"moved":1,.*"went":1}'
code=0
wait "$watcher" || code=$?
expect "exit code of find --watch after Ctrl-C" "$code" 130
announce "$(announcement 10.77.9.1 000400000061 prn-61 Model)" \
    "$(announcement 10.77.9.2 000400000062 prn-62 Model)"
say "kestctl find --watch ends when its output is closed"
: >"$work/watched"
{
    code=0
    kestctl find --watch --json || code=$?
    echo "$code" >"$work/code"
} 2>"$work/errors" > >(exec head -1 >"$work/watched") &
watcher=$!
watched '"came"'
# head may have read both lines before it ended: only a later one meets the closed output.
announce "$(announcement 10.77.9.3 000400000061 prn-61 Model)" \
    "$(announcement 10.77.9.4 000400000062 prn-62 Model)"
wait "$watcher"
expect "exit code with a closed output" "$(cat "$work/code" "$work/errors")" 0
expect "lines that head keeps" "$(wc -l <"$work/watched")" 1

say "it is where it was, and takes no job"
printers_off
announce "$(announcement 10.77.1.28 000400000028 prn-8 Model_100)"
kestctl port add THERE --address 10.77.1.28 --mac 000400000028 --always-print >/dev/null
no_job THERE "the printer was found at the same address, and accepts no job there"

say "nobody answers"
printers_off
kestctl port add GONE --address 10.77.1.29 --mac 000400000029 --host-name prn-9 \
    --always-print >/dev/null
forget
no_job GONE "did not find it"
logged 2 "Successfully found 0 printer(s)"
logged 2 "Return from DiscoverPrinterSynch is 0"
expect "the address kept" "$(setting GONE address)" 10.77.1.29

say "no SLPConf.xml, and a broken one"
for conf in "" "<slp_config><version>2"; do
    rm "$bin/SLPConf.xml"
    [ -z "$conf" ] || echo "$conf" >"$bin/SLPConf.xml"
    forget
    no_job GONE "did not find it"
    logged 1 "XMLfile path: $(windows_path "$bin/SLPConf.xml")"
    logged 2 "Return from DiscoverPrinterSynch is -104"
    echo >"$bin/SLPConf.xml"
done
