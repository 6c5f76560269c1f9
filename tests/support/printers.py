#!/usr/bin/python3
"""Simulated printers: printers.py FOLDER ADDRESS...

Each address (IPv4 or IPv6; all have to be this host's) takes RAW jobs at port 9100 and LPR jobs
(RFC 1179) at port 515. A job that has come to its end is a file, FOLDER/ADDRESS-N, N counting from
1 over all runs. Prints `ready` when everything listens.
"""
import os
import pathlib
import socket
import sys
import threading

import responders

RAW, LPR = 9100, 515
saving = threading.Lock()


def save(folder, address, data):
    with saving:
        number = len(list(folder.glob(f"{address}-*"))) + 1
        part = folder / "part"
        part.write_bytes(data)
        os.rename(part, folder / f"{address}-{number}")


def take_raw(stream):
    return stream.read()


def take_lpr(stream):
    data = b""
    if stream.readline()[:1] == b"\2":
        stream.write(b"\0")
        while line := stream.readline():
            stream.write(b"\0")
            size = int(line[1:].split()[0])
            content = stream.read(size) if size else stream.read()[:-1]
            if size:
                stream.read(1)
            stream.write(b"\0")
            if line[:1] == b"\3":
                data = content
    return data


def serve(listener, folder, address, take):
    while True:
        connection, _ = listener.accept()
        with connection, connection.makefile("rwb", buffering=0) as raw:
            stream = Unbuffered(raw)
            try:
                save(folder, address, take(stream))
            except OSError:
                pass


class Unbuffered:
    """Whole reads over a stream whose answers are not held back."""

    def __init__(self, raw):
        self.raw, self.write = raw, raw.write

    def read(self, size=None):
        data = bytearray()
        while size is None or len(data) < size:
            piece = self.raw.read(65536 if size is None else size - len(data))
            if not piece:
                break
            data += piece
        return bytes(data)

    def readline(self):
        line = bytearray()
        while not line.endswith(b"\n") and (byte := self.raw.read(1)):
            line += byte
        return bytes(line)


def main():
    if len(sys.argv) < 3 or sys.argv[1] in ("-h", "--help"):
        sys.exit(__doc__)
    threading.excepthook = responders.end_process
    folder = pathlib.Path(sys.argv[1])
    for address in sys.argv[2:]:
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        for port, take in ((RAW, take_raw), (LPR, take_lpr)):
            listener = responders.tcp_socket(family, address, port)
            threading.Thread(target=serve, args=(listener, folder, address, take)).start()
    print("ready", flush=True)


if __name__ == "__main__":
    main()
