# shellcheck shell=bash
# shellcheck disable=SC2154 # root is set by script/common.sh
# Sourced, after script/common.sh: printers that take jobs, say who they are, and move.
#
printers_host=()               # a command that runs others where the printers are to be
#   printers_network NAME      two hosts with a cable, printers on the peer, and a folder, $work, that
#                              goes at exit; after netns.sh
#   printers FOLDER ADDRESS... these addresses take jobs now, and no others: see printers.py
#   agents GROUP...            these agents answer now, and no others: see service_agents.py
#   dns_sd GROUP...            these answer by DNS-SD now, and no others: see dns_sd_responders.py
#   announcement ADDRESS MAC NAME MODEL
#                              a printer's attribute list, with the shipped SLPConf.xml's tags; a
#                              blank in it is written as _
#   take_job FILE COPY         waits until a job is there, and compares it with what was printed
#   printers_off               ends all of them (also done at exit)
#
# A test fails if printers or agents have ended by themselves, when they are replaced or at its end.

printers_pid=
agents_pid=
dns_sd_pid=

printers_network() {
    netns_need
    netns_up
    printers_host=(ip netns exec "$peer_ns")
    work=$(mktemp -d "$build/$1.XXXXXX")
    at_exit "rm -rf '$work'"
}

printers() {
    in_place_of "$printers_pid" printers "$root/tests/support/printers.py" "$@"
    printers_pid=$started
}

agents() {
    in_place_of "$agents_pid" agents "$root/tests/support/service_agents.py" "$@"
    agents_pid=$started
}

dns_sd() {
    in_place_of "$dns_sd_pid" "DNS-SD printers" "$root/tests/support/dns_sd_responders.py" "$@"
    dns_sd_pid=$started
}

announcement() {
    printf '(ip-address=%s),(mac-address=%s),(host-name=%s),' "${@:1:3}"
    printf '(printer-device-id=MFG:Acme;MDL:%s;)' "$4"
}

# The last bytes may still be on their way when the job's end is reported.
take_job() {
    local tries=0
    until [ -e "$1" ]; do
        [ $((tries += 1)) -le 200 ] || fail "no job arrived at ${1##*/}"
        sleep 0.05
    done
    cmp "$1" "$2" || fail "the job arrived changed at ${1##*/}"
}

printers_off() {
    switch_off "$printers_pid" printers
    printers_pid=
    switch_off "$agents_pid" agents
    agents_pid=
    switch_off "$dns_sd_pid" "DNS-SD printers"
    dns_sd_pid=
}

switch_off() {
    [ -n "$1" ] || return 0
    is_alive "$1" || fail "the $2 have ended by themselves"
    kill -KILL "$1"
    wait "$1" || true
}

is_alive() { grep -q '^State:[[:space:]]*[^ZX]' "/proc/$1/status" 2>/dev/null; }

printers_at_exit() {
    local pid
    for pid in $printers_pid $agents_pid $dns_sd_pid; do
        is_alive "$pid" && kill -KILL "$pid" && continue
        say "the printers or agents have ended by themselves"
        [ "$exit_code" -ne 0 ] || exit_code=1
    done
}

# Ends one program, starts another and waits until it is ready.
in_place_of() {
    switch_off "$1" "$2"
    # No compiled modules among the sources.
    exec {ready}< <(PYTHONDONTWRITEBYTECODE=1 exec "${priority[@]}" "${printers_host[@]}" "${@:3}")
    started=$!
    [ -n "${has_printers:-}" ] || at_exit printers_at_exit
    has_printers=1
    read -r _ <&"$ready" || fail "the $2 do not start"
    exec {ready}<&-
}
