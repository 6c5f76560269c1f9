# shellcheck shell=bash
# shellcheck disable=SC2154 # build and root are set by script/common.sh
# Sourced, after script/common.sh: Wine's own print spooler as the host of the installed monitor.
# Every program has that spooler in its own process: it reads ports and printers when it starts.
#
#   spooler_on PREFIX COMMAND...  where it is: a Wine prefix, and a command that runs programs there
#                                 (a machine of wine_machine without this call)
#   spooler_install [PROGRAM]     has the spooler load the monitor, installed by `kestctl monitor
#                                 install` of this kestctl.exe; the one that was built if none is
# given
#   spooler_bridge                the same for a monitor that something else has installed
#   kestctl ARGUMENT...           runs kestctl there
#   spooler ARGUMENT...           calls a print function there: see Spooler.cpp
#   expect CODE TEXT COMMAND...   runs a command; checks its exit code and a text that it prints

# Wine reads arguments in the encoding of the locale.
export LC_ALL=C.UTF-8
spooler_prefix=
spooler_run=(wine)
spooler_key='HKLM\SYSTEM\CurrentControlSet\Control\Print\Monitors\kestmon'
kestctl_program=$build/bin/kestctl.exe

spooler_on() {
    spooler_prefix=$1
    spooler_run=("${@:2}")
}

kestctl() { "${spooler_run[@]}" "$kestctl_program" "$@"; }
spooler() { "${spooler_run[@]}" "$build/tests/spooler.exe" "$@" | tr -d '\r'; }

spooler_install() {
    kestctl_program=${1:-$kestctl_program}
    # A spooler that runs loads a monitor before the bridge is there.
    "${spooler_run[@]}" net stop spooler >/dev/null 2>&1 || true
    if "${spooler_run[@]}" reg query "$spooler_key" >/dev/null 2>&1; then
        spooler_driver kestmon.dll
    fi
    kestctl monitor install >/dev/null || fail "the monitor is not installed"
    spooler_bridge
}

spooler_bridge() {
    cp "$build/tests/spooler_bridge.dll" "${spooler_prefix:-$WINEPREFIX}/drive_c/windows/system32"
    spooler_driver spooler_bridge.dll
}

# The monitor's own library is kestmon.dll; it is not installed over another.
spooler_driver() {
    "${spooler_run[@]}" reg add "$spooler_key" /v Driver /d "$1" /f >/dev/null
}

# Not into a pipe: a desktop that Wine starts on the way holds it open.
expect() {
    local code=$1 text=$2 got=0 file output
    shift 2
    file=$(mktemp)
    "$@" >"$file" 2>&1 || got=$?
    output=$(cat "$file")
    rm "$file"
    [ "$got" -eq "$code" ] || fail "$*: exit code $got instead of $code: $output"
    [[ $output == *"$text"* ]] || fail "$*: no '$text' in: $output"
}
