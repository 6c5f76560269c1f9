#!/usr/bin/env bash
# Builds and packs a release a second time, in a folder with a longer path, with other file times, modes
# and time zone, and compares it byte for byte with the first: reproducible.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"

# The second build compiles every file itself, whatever a compiler cache has.
export CCACHE_DISABLE=1
SOURCE_DATE_EPOCH=$(source_date)
export SOURCE_DATE_EPOCH
pack() { cmake --preset windows && cmake --build --preset windows --target shipped && package/make-release; }

work=$(mktemp -d)
at_exit "rm -rf '$work'"
cd "$root"
pack >"$work/log" 2>&1 || fail "the first build failed: $(cat "$work/log")"

umask 077
copy=$work/a-folder-with-another-and-a-longer-name/kestmon
mkdir -p "$copy"
tar -cf - --exclude=./build --exclude=./.git . | tar -xf - -C "$copy"
find "$copy" -exec touch -d 2001-02-03 {} +
cd "$copy"
TZ=Pacific/Kiritimati pack >"$work/log" 2>&1 || fail "the second build failed: $(cat "$work/log")"

different=()
name=kestmon-$(project_version)
for file in bin/{kestctl.exe,kestmon.dll,kestui.dll,slp64.dll} \
    "$name"{-win64.zip,-x64.msi,.spdx.json} SHA256SUMS; do
    cmp "$build/$file" "$copy/build/$file" || different+=("$file")
done
[ ${#different[@]} -eq 0 ] || fail "different after a second build: ${different[*]}"
say "reproducible: $(wc -l <"$build/SHA256SUMS") files of the release are the same after a second build"
