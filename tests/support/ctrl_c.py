#!/usr/bin/python3
"""Runs a program on a terminal of its own and presses Ctrl-C.

  ctrl_c.py TEXT COMMAND...

Presses it when TEXT is on the screen and the program waits. Exits with the program's exit code;
with 125, and what was on the screen, when TEXT does not appear or the program does not end within
a minute.
"""
import glob
import os
import pty
import re
import select
import sys
import time

TIMEOUT = 60
ESCAPES = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]|\x1b\][^\x07]*\x07")


def await_rest(process):
    """Waits until no thread of the process runs, for 2 s at most. Wine starts a thread in the
    handler of the terminal's signal, and hangs if that interrupts the start of another thread."""
    quiet = 0
    end = time.monotonic() + 2
    before = None
    while quiet < 4 and time.monotonic() < end:
        now = []
        for name in glob.glob(f"/proc/{process}/task/*/stat"):
            try:
                with open(name) as file:
                    fields = file.read().rpartition(")")[2].split()
                now.append((name, fields[0], fields[11], fields[12]))
            except OSError:  # the thread has ended
                pass
        rests = now == before and all(state == "S" for _, state, _, _ in now)
        quiet = quiet + 1 if rests else 0
        before = now
        time.sleep(0.05)


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
            await_rest(child)
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
