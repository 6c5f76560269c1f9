# shellcheck shell=bash
# Sourced by the other scripts: paths, and the Wine prefixes below the build folder. Nothing here
# uses the prefix of the user.
#
#   wine_machine [FOLDER]  makes a prefix for this script alone and starts its server; WINEPREFIX
#                          names it. Both end with the script. The prefix of a script that failed is
#                          kept if KEST_KEEP is set.
#   wine_up                starts the server of build/wine, the prefix that is shared by the scripts
#                          for use by hand and keeps its ports
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${KEST_BUILD:-$root/build}
template=$build/wine-template
machines=$build/machines

export WINEPREFIX=${KEST_WINEPREFIX:-$build/wine}
# Wine prints why it ends a process by itself, and nothing else.
export WINEDEBUG=${WINEDEBUG:--all,err+seh,err+virtual,err+server,err+process}
# No debugger: a program that crashes under it ends with 0, as if it had succeeded.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree=;mshtml=;winedbg.exe=d}

say() { printf '%s\n' "$*" >&2; }

fail() {
    say "$(basename "$0"): $*"
    exit 1
}

# A script that ends because a command failed reports the command, which may have printed nothing.
# Subshells stay silent: the command in the main shell that they belong to fails as well.
set -o errtrace
trap 'report_failure $? "$BASH_COMMAND"' ERR

report_failure() {
    local level
    [ "$BASH_SUBSHELL" -eq 0 ] || return 0
    say "$(basename "$0"): exit code $1: $2"
    for ((level = 1; level < ${#BASH_SOURCE[@]}; ++level)); do
        say "    ${BASH_SOURCE[level]#"$root"/}:${BASH_LINENO[level - 1]}"
    done
}

# The release's number. CMakeLists.txt alone has it.
project_version() { sed -n 's/^project(kestmon VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt"; }

# The date that everything in a release has, in seconds since 1970: that of the last commit; outside
# git the earliest that a zip archive can have.
source_date() {
    local earliest=315532800
    echo "${SOURCE_DATE_EPOCH:-$(git -C "$root" log -1 --format=%ct 2>/dev/null || echo $earliest)}"
}

# Whether build/ is configured with a compiler cache. A cache does not notice that the folder names
# which programs contain have changed, and returns what was compiled with other ones.
has_compiler_cache() { grep -qs '^CMAKE_CXX_COMPILER_LAUNCHER:.*=.' "$build/CMakeCache.txt"; }

# Prefix of a command that plays a machine in a simulated network. Searches and acknowledgments
# have time limits, so a busy test machine must not slow it down. Only root may raise a priority,
# outside some containers.
priority=()
# shellcheck disable=SC2034 # for those that source this
[ -n "$(nice -n -15 true 2>&1)" ] || priority=(nice -n -15)

# Whether a command succeeds and prints a text. Piped to `grep -q`, it could end early and fail.
prints() {
    local text=$1 output
    output=$("${@:2}") && [[ $output == *"$text"* ]]
}

# Runs a command when the script ends, before the commands of earlier calls. The script keeps its
# exit code, which the commands find in $exit_code.
at_exit() {
    exit_commands="$1; ${exit_commands:-}"
    trap 'run_at_exit $?' EXIT
}

run_at_exit() {
    exit_code=$1
    trap - EXIT ERR
    set +e
    eval "$exit_commands"
    exit "$exit_code"
}

# A script that is told to end does so by way of its EXIT trap.
trap 'exit 143' TERM

# The server of the prefix in WINEPREFIX, and of no other.
wine_server() { "$(command -v wineserver || echo /usr/lib/wine/wineserver64)" "$@"; }

wine_running() { [ -d "$WINEPREFIX" ] && wine_server -k0 2>/dev/null; }

# Makes the template of all prefixes if there is none for this version of Wine (about 8 s). No
# server opens it afterwards. Programs that would only cost time do not start in its copies:
# services for USB and input devices, and the event log. No folder of it leads to the user's own
# files.
wine_template() {
    local inf=/usr/share/wine/wine.inf service link
    [ -d "$template" ] && [ ! "$inf" -nt "$template" ] && return
    mkdir -p "$build"
    (
        flock 9
        [ -d "$template" ] && [ ! "$inf" -nt "$template" ] && exit
        say "making the template of the Wine prefixes in ${template#"$root"/}"
        rm -rf "$template" "$template.new"
        mkdir "$template.new"
        # shellcheck disable=SC2030
        export WINEPREFIX=$template.new
        unset DISPLAY
        exec </dev/null >/dev/null 2>&1
        wine wineboot -i
        for service in winebus winehid wineusb PlugPlay Eventlog; do
            wine reg add "HKLM\\SYSTEM\\CurrentControlSet\\Services\\$service" \
                /v Start /t REG_DWORD /d 4 /f
        done
        wine_server -k
        wine_server -w
        find "$WINEPREFIX/drive_c/users" -type l | while read -r link; do
            rm "$link"
            mkdir "$link"
        done
        # What copies share (hard links) cannot be written to.
        find "$WINEPREFIX/drive_c/windows" "$WINEPREFIX/drive_c/Program Files"* -type f \
            -not -name '*.ini' -exec chmod a-w {} +
        touch "$WINEPREFIX"
        mv "$WINEPREFIX" "$template"
    ) 9>"$template.lock"
}

# Makes a prefix from the template: copies of what can be written to, links to the rest.
wine_copy() {
    wine_template
    mkdir -p "$1"
    cp -al "$template/." "$1"
    (cd "$template" && find . -type f -perm /222 \
        -exec cp -p --parents --remove-destination -t "$1" {} +)
}

# Starts the server of the prefix in WINEPREFIX: wine_start [COMMAND...], by a command that runs
# others. A program then starts in a tenth of a second instead of in three. The server of a script
# that was killed ends after five minutes.
# shellcheck disable=SC2031
wine_start() {
    # The first program starts Wine's services, and they keep its output open for as long as they
    # live: it must not be one whose output somebody reads to the end.
    {
        "$@" "$(command -v wineserver || echo /usr/lib/wine/wineserver64)" -p300 &&
            "$@" wine cmd /c exit
    } </dev/null >/dev/null 2>&1 || fail "no Wine server starts for $WINEPREFIX"
}

wine_stop() {
    wine_server -k 2>/dev/null || true
    wine_server -w
}

wine_machine() {
    local folder=${1:-$(machine_folder)}
    mkdir -p "$folder"
    WINEPREFIX=$(cd "$folder" && pwd)
    export WINEPREFIX KEST_WINEPREFIX=$WINEPREFIX # for the scripts that this one runs, too
    unset DISPLAY
    at_exit "wine_discard '$WINEPREFIX'"
    wine_copy "$WINEPREFIX"
    wine_start
}

# Makes an empty folder for a prefix; its name has the script's name and process number.
machine_folder() {
    mkdir -p "$machines"
    mktemp -d "$machines/$(basename "$0" .sh).$$.XXXXXX"
}

wine_discard() {
    WINEPREFIX=$1 wine_stop
    if [ "${exit_code:-0}" -ne 0 ] && [ -n "${KEST_KEEP:-}" ]; then
        say "the Wine prefix is kept: $1"
    else
        rm -rf "$1"
    fi
}

# Starts the server of build/wine unless it runs; the last script that uses it ends it. The server
# of a machine runs already.
wine_up() {
    [ -z "${KEST_WINEPREFIX:-}" ] || return 0
    wine_template
    at_exit wine_down
    mkdir -p "$WINEPREFIX.users"
    (
        flock 9
        [ -e "$WINEPREFIX/system.reg" ] || wine_copy "$WINEPREFIX"
        touch "$WINEPREFIX.users/$$"
        wine_running || wine_start 9>&-
    ) 9>"$WINEPREFIX.lock"
}

wine_down() {
    [ -z "${KEST_WINEPREFIX:-}" ] || return 0
    (
        flock 9
        rm -f "$WINEPREFIX.users/$$"
        for user in "$WINEPREFIX.users"/*; do
            [ -d "/proc/${user##*/}" ] && exit # another script still has programs running
        done
        wine_stop 9>&-
    ) 9>"$WINEPREFIX.lock"
}
