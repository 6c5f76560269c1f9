#!/usr/bin/env bash
# Runs a Windows program on a machine of its own, with its own registry, drive C:, TEMP folder and
# log: machine.sh [--each] PROGRAM.exe [ARGUMENT...]
# With --each, every test of a GoogleTest program runs in a process of its own.
. "$(dirname "${BASH_SOURCE[0]}")/../../script/common.sh"
wine_machine
if [ "$1" != --each ]; then
    wine "$@"
    exit
fi
shift
tests=$(wine "$@" --gtest_list_tests | tr -d '\r' |
    awk '/^[^ ]+\.$/ {suite = $1} /^  / {print suite $1}')
[ -n "$tests" ] || fail "$1 has no tests"
code=0
for test in $tests; do
    wine "$@" --gtest_filter="$test" || code=$?
done
exit "$code"
