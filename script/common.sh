# shellcheck shell=bash
# Sourced by the other scripts: where things are, and the Wine prefix that belongs to the build
# folder. Nothing here touches the user's own prefix.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KEST_BUILD:-$root/build}

export WINEPREFIX=${KEST_WINEPREFIX:-$build/wine}
export WINEDEBUG=${WINEDEBUG:--all}
# No debugger: a program that crashes under it ends with 0, as if all were well.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree=;mshtml=;winedbg.exe=d}

say() { printf '%s\n' "$*" >&2; }

fail() {
    say "$(basename "$0"): $*"
    exit 1
}

# Has a command run when the script ends, before those that it was told earlier.
at_exit() {
    exit_commands="$1; ${exit_commands:-}"
    trap 'eval "$exit_commands"' EXIT
}

# The server of this prefix, and of no other.
wine_server() {
    if command -v wineserver >/dev/null; then
        wineserver "$@"
    else
        /usr/lib/wine/wineserver64 "$@"
    fi
}

wine_running() { [ -d "$WINEPREFIX" ] && wine_server -k0 2>/dev/null; }

# A script that is told to end does so by way of its EXIT trap.
trap 'exit 143' TERM

# Makes the prefix if it is not there (about 8 s), once, however many ask at the same time.
wine_prefix() {
    [ -e "$WINEPREFIX/.kest-ready" ] && return
    mkdir -p "$WINEPREFIX"
    (
        flock 9
        [ -e "$WINEPREFIX/.kest-ready" ] && exit
        say "making a Wine prefix in ${WINEPREFIX#"$root"/}"
        wine wineboot -i >/dev/null 2>&1 9>&-
        wine_server -w 9>&-
        touch "$WINEPREFIX/.kest-ready"
    ) 9>"$WINEPREFIX.lock"
}

# Starts the prefix's server unless one runs; the last script that uses it ends it. A server that
# stays makes a program start in a tenth of a second instead of in three.
wine_up() {
    wine_prefix
    at_exit wine_down
    mkdir -p "$WINEPREFIX.users"
    (
        flock 9
        touch "$WINEPREFIX.users/$$"
        wine_running && exit
        wine_server -p >/dev/null 2>&1 9>&-
        # The first program starts Wine's services, and they keep its output open for as long as
        # they live: it must not be one whose output somebody reads to the end.
        wine cmd /c exit </dev/null >/dev/null 2>&1 9>&-
    ) 9>"$WINEPREFIX.lock"
}

wine_down() {
    (
        flock 9
        rm -f "$WINEPREFIX.users/$$"
        for user in "$WINEPREFIX.users"/*; do
            [ -d "/proc/${user##*/}" ] && exit # another script still has programs running
        done
        wine_server -k 2>/dev/null 9>&- || true
        wine_server -w 9>&-
    ) 9>"$WINEPREFIX.lock"
}
