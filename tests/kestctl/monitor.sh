#!/usr/bin/env bash
# `kestctl monitor` and `kestctl selftest` as an administrator runs them, on a machine of their own:
# a Wine prefix with its registry, system folder, services and spooler. monitor.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"

wine_machine
folder=$WINEPREFIX/drive_c/work
program=$build/bin/kestctl.exe
system=$WINEPREFIX/drive_c/windows/system32
key='HKLM\SYSTEM\CurrentControlSet\Control\Print'

# expect CODE TEXT ARGUMENT...: runs kestctl; its exit code, and a text that it prints.
expect() {
    local code=$1 text=$2 got=0 output
    shift 2
    output=$(wine "$program" "$@" 2>&1) || got=$?
    [ "$got" -eq "$code" ] || fail "kestctl $*: exit code $got instead of $code: $output"
    [[ $output == *"$text"* ]] || fail "kestctl $*: no '$text' in: $output"
}

# All that set-up may change.
machine() {
    find "$system" -type f -printf '%P %s %t\n' | LC_ALL=C sort # other prefixes link the same files
    wine reg query "$key" /s
}
same_as_before() { diff <(printf '%s\n' "$before") <(machine) || fail "$1 left something behind"; }

wine net stop spooler >/dev/null 2>&1 || true
mkdir -p "$folder/stub"
before=$(machine)

# A spooler that is stopped stays so, and has the monitor in its registry.
expect 0 "does not run, loads it when it starts" monitor install
for file in kestmon.dll slp64.dll SLPConf.xml; do
    cmp "$system/$file" "$build/bin/$file"
done
prints kestmon.dll wine reg query "$key\\Monitors\\kestmon" /v Driver ||
    fail "the driver is not registered"
expect 1 "-> net start spooler" monitor status
wine reg add "$key\\Monitors\\kestmon\\Ports\\OFFICE" /v Protocol /t REG_DWORD /d 1 >/dev/null
wine reg add "$key\\Printers\\Laser" /v Port /d OFFICE >/dev/null
expect 1 "Laser on OFFICE" monitor remove
wine reg delete "$key\\Printers\\Laser" /f >/dev/null
expect 0 "kestmon is removed" monitor remove
same_as_before remove
expect 1 "kestmon.dll is missing" monitor install --from "Z:$folder"

# A spooler that runs, and does not take the monitor: Wine's gives it no registry.
wine net start spooler >/dev/null
expect 1 "everything is as it was before" monitor install
same_as_before "a failed installation"

# The same with a monitor that it takes.
cp "$build"/bin/{slp64.dll,SLPConf.xml,kestctl.exe} "$build/tests/stub/kestmon.dll" "$folder/stub"
program=$folder/stub/kestctl.exe
expect 0 "and the print spooler has loaded it" monitor install
expect 0 "nothing to do" monitor install
expect 0 "loaded          yes" monitor status
expect 0 "0 ports are kept in" monitor remove --keep-ports "Z:$folder/kept.json"
same_as_before "remove through the spooler"
program=$build/bin/kestctl.exe

# Past the spooler, before, while and after Wine's spooler has the monitor to load: it loads the
# same library into kestctl for itself, where the monitor refuses to start without a registry.
direct() {
    expect 0 added --direct port add OFFICE --address 127.0.0.1
    expect 0 "1 port" --direct port export 'C:\work\ports.json' --force
    expect 0 deleted --direct port delete OFFICE
    expect 0 "1 added" --direct port import 'C:\work\ports.json'
    expect 1 "there is no standard TCP/IP port" --direct port migrate --dry-run
    expect 0 "ok      clean-up" --direct selftest --printer Control
    expect 0 deleted --direct port delete OFFICE
    expect 1 "FAILED  " selftest
}
wine net stop spooler >/dev/null
wine "$build/tests/spooler.exe" add-printer Control NUL: >/dev/null
direct
expect 0 "kestmon 1" monitor install
direct
expect 0 "kestmon is removed" monitor remove
direct
