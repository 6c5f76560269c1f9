#!/usr/bin/env bash
# Runs the tests of the dialogs on a virtual screen: dialogs.sh PROGRAM.exe [ARGUMENT...]
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
. "$root/tests/support/screen.sh"

screen_up "${KEST_DPI:-96}"
on_screen "$@"
