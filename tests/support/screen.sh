# shellcheck shell=bash
# shellcheck disable=SC2154 # build and root are set by script/common.sh
# Sourced, after script/common.sh, by what shows windows: a virtual screen, and a Wine prefix and
# server of its own, for those that run without a screen cannot show any. All of it ends with the
# script.
#
#   screen_up [DPI]            makes the screen (96 dots per inch)
#   on_screen PROGRAM...       runs a Windows program there
#   screen_down                ends it (also done at exit)

screen_pid=
screen_prefix=

on_screen() { WINEPREFIX=$screen_prefix DISPLAY=$screen_display wine "$@"; }

screen_up() {
    local dpi=${1:-96}
    at_exit screen_down
    exec {number}< <(exec Xvfb -displayfd 1 -screen 0 1280x1024x24 -nolisten tcp 2>/dev/null)
    screen_pid=$!
    read -r screen_display <&"$number" || fail "the virtual screen does not start"
    exec {number}<&-
    screen_display=:$screen_display
    screen_prefix=$(machine_folder)
    wine_copy "$screen_prefix"
    # The signs on the title bar's buttons, which Wine does not find where Debian puts them.
    mkdir -p "$screen_prefix/drive_c/windows/Fonts"
    cp /usr/share/wine/fonts/marlett.ttf "$screen_prefix/drive_c/windows/Fonts"
    WINEPREFIX=$screen_prefix DISPLAY=$screen_display wine_start
    {
        # A desktop of Wine's own draws the windows' frames: there is no window manager.
        on_screen reg add 'HKCU\Software\Wine\Explorer' /v Desktop /d Default /f
        on_screen reg add 'HKCU\Software\Wine\Explorer\Desktops' /v Default /d 1280x1024 /f
        on_screen reg add 'HKCU\Control Panel\Desktop' /v LogPixels /t REG_DWORD /d "$dpi" /f
        on_screen reg add 'HKCU\Control Panel\Desktop' /v FontSmoothing /d 2 /f
        on_screen reg add 'HKCU\Control Panel\Desktop' /v FontSmoothingType /t REG_DWORD /d 1 /f
        # Title bars as Windows has them.
        on_screen reg add 'HKCU\Control Panel\Colors' /v ActiveTitle /d '255 255 255' /f
        on_screen reg add 'HKCU\Control Panel\Colors' /v GradientActiveTitle /d '255 255 255' /f
        on_screen reg add 'HKCU\Control Panel\Colors' /v TitleText /d '0 0 0' /f
    } </dev/null >/dev/null 2>&1
    # The desktop that is there already was made without these.
    WINEPREFIX=$screen_prefix wine_stop
    WINEPREFIX=$screen_prefix DISPLAY=$screen_display wine_start
}

screen_down() {
    if [ -n "$screen_prefix" ]; then
        wine_discard "$screen_prefix"
        screen_prefix=
    fi
    [ -z "$screen_pid" ] || kill "$screen_pid" 2>/dev/null || true
    screen_pid=
}
