#!/usr/bin/python3
"""Runs a program on a terminal of its own and presses Ctrl-C.

  ctrl_c.py TEXT COMMAND...

Presses it when TEXT is on the screen. Exits with the program's exit code; with 125, and what was on
the screen, when TEXT does not appear or the program does not end within a minute.
"""
import os
import pty
import re
import select
import sys
import time

TIMEOUT = 60
ESCAPES = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]|\x1b\][^\x07]*\x07")


def main(text, command):
    child, terminal = pty.fork()
    if child == 0:
        os.execvp(command[0], command)
    screen = b""
    pressed = False
    end = time.monotonic() + TIMEOUT
    while time.monotonic() < end:
        if select.select([terminal], [], [], 0.2)[0]:
            try:
                screen += os.read(terminal, 65536)
            except OSError:  # the terminal is closed: the program has ended
                break
        if not pressed and text.encode() in ESCAPES.sub(b"", screen):
            pressed = True
            os.write(terminal, b"\x03")
        ended, status = os.waitpid(child, os.WNOHANG)
        if ended:
            return report(pressed, screen, status)
    else:
        os.kill(child, 9)
    return report(pressed and time.monotonic() < end, screen, os.waitpid(child, 0)[1])


def report(well, screen, status):
    if well:
        return os.waitstatus_to_exitcode(status)
    print(ESCAPES.sub(b"", screen).decode(errors="replace"), file=sys.stderr)
    return 125


sys.exit(main(sys.argv[1], sys.argv[2:]))
