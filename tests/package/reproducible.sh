#!/usr/bin/env bash
# Builds and packs a release a second time, in a folder with a longer path, with other file times, modes
# and time zone, and compares it byte for byte with the first: reproducible.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"

# A compiler cache may return what was compiled in another folder: no build here uses one.
export CCACHE_DISABLE=1
SOURCE_DATE_EPOCH=$(source_date)
export SOURCE_DATE_EPOCH

work=$(mktemp -d)
at_exit "rm -rf '$work'"

copy_to() {
    mkdir -p "$1"
    tar -cf - -C "$root" --exclude=./build --exclude=./.git . | tar -xf - -C "$1"
}
# pack FOLDER: builds what is shipped in a copy of the project, and packs it.
pack() (
    cd "$1"
    { cmake --preset windows && cmake --build --preset windows --target shipped && package/make-release; } \
        >"$work/log" 2>&1 || fail "the build in $1 failed: $(cat "$work/log")"
)

first=$root
if grep -q '^CMAKE_CXX_COMPILER_LAUNCHER:.*=.' "$build/CMakeCache.txt"; then
    first=$work/first
    copy_to "$first"
fi
pack "$first"

umask 077
second=$work/a-folder-with-another-and-a-longer-name/kestmon
copy_to "$second"
find "$second" -exec touch -d 2001-02-03 {} +
TZ=Pacific/Kiritimati pack "$second"

different=()
name=kestmon-$(project_version)
for file in bin/{kestctl.exe,kestmon.dll,kestui.dll,slp64.dll} \
    "$name"{-win64.zip,-x64.msi,.spdx.json} SHA256SUMS; do
    cmp "$first/build/$file" "$second/build/$file" || different+=("$file")
done
[ ${#different[@]} -eq 0 ] || fail "different after a second build: ${different[*]}"
say "reproducible: $(wc -l <"$first/build/SHA256SUMS") files of the release are the same after a second build"
