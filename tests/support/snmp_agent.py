#!/usr/bin/python3
"""Printers that speak SNMPv2c, for the length of a command: snmp_agent.py COMMAND [ARGUMENT...]

The command runs with KEST_SNMP_PORT, the UDP port that all of them listen on, and KEST_SNMP_LOG,
the file in which each request leaves a line before it is answered:

    GET from 127.0.0.1 to 127.1.0.1, community 736e6d7072..., 1.3.6.1...5.12.0=Null, ...

A printer's address says how it behaves (see PRINTERS). Its four settings are its own, and are
kept: what is set can be read back.
"""

import os
import selectors
import socket
import subprocess
import sys
import tempfile
import threading

from pyasn1.codec.ber import decoder, encoder
from pysnmp.proto import api, rfc1902, rfc1905

SETTINGS = (1, 3, 6, 1, 4, 1, 11, 2, 4, 3, 5)
METHOD, ADDRESS, MASK, GATEWAY, NAME, MEMORY = (
    SETTINGS + (last, 0) for last in (1, 2, 12, 13, 100, 101))
proto = api.protoModules[api.protoVersion2c]


def address(octets):
    """An IpAddress of any length."""
    return rfc1902.OctetString(bytes(octets), tagSet=rfc1902.IpAddress.tagSet)


# What is special about a printer; the keywords are those of Printer.
PRINTERS = {
    "127.1.0.1": dict(),
    "127.1.0.2": dict(silent=True),
    "127.1.0.3": dict(set_error=17),  # notWritable
    "127.1.0.4": dict(values={MASK: rfc1902.OctetString(b"255.0.0.0"), METHOD: address([1])}),
    "127.1.0.5": dict(values={MASK: rfc1902.Integer(7)}),
    "127.1.0.6": dict(values={GATEWAY: rfc1905.noSuchInstance}),
    "127.1.0.7": dict(values={MASK: address([]), GATEWAY: address(range(1, 200))}),
    "127.1.0.8": dict(swap=True),  # mask and gateway stand in each other's place
    "127.1.0.9": dict(cut=True),  # the last binding is missing
    "127.1.0.10": dict(first=b"\x30\x84\xff\xff\xff\xff\x02\x01\x01"),  # then a good answer
    "127.1.0.11": dict(values={ADDRESS: address([127, 1, 0, 99])}),  # says it is another
    "127.1.0.12": dict(values={METHOD: rfc1902.OctetString(b"\x03")}),
    "127.1.0.13": dict(get_error=5),  # genErr
}


class Printer:
    def __init__(self, host, values=None, get_error=0, set_error=0, silent=False, swap=False,
                 cut=False, first=b""):
        self.values = {
            METHOD: rfc1902.Integer(3),
            ADDRESS: rfc1902.IpAddress(host.replace("127.", "10.", 1)),
            MASK: rfc1902.IpAddress("255.0.0.0"),
            GATEWAY: rfc1902.IpAddress("10.1.255.254"),
            NAME: rfc1902.OctetString(b"Office\x00" + b"x" * 20000),
            MEMORY: rfc1902.Integer(-2),
        }
        self.values.update(values or {})
        self.get_error, self.set_error, self.silent = get_error, set_error, silent
        self.swap, self.cut, self.first = swap, cut, first

    def answer(self, message, pdu):
        """The datagrams that a request is answered with."""
        reply = proto.apiMessage.getResponse(message)
        reply_pdu = proto.apiMessage.getPDU(reply)
        bindings = proto.apiPDU.getVarBinds(pdu)
        is_set = pdu.isSameTypeWith(proto.SetRequestPDU())
        error = self.set_error if is_set else self.get_error
        if is_set and not error:
            if any(value.tagSet != self.values[tuple(name)].tagSet for name, value in bindings):
                error = 7  # wrongType, and nothing is changed
            else:
                self.values.update((tuple(name), value) for name, value in bindings)
        if error:
            proto.apiPDU.setErrorStatus(reply_pdu, error)
            proto.apiPDU.setErrorIndex(reply_pdu, 1)
        elif not is_set:
            bindings = [(name, self.values.get(tuple(name), rfc1905.noSuchObject))
                        for name, _ in bindings]
            bindings = bindings[1::-1] + bindings[2:] if self.swap else bindings
            bindings = bindings[:-1] if self.cut else bindings
        proto.apiPDU.setVarBinds(reply_pdu, bindings)
        return [datagram for datagram in (self.first, encoder.encode(reply)) if datagram]


def text(value):
    name = type(value).__name__
    if name == "IpAddress":
        return "IpAddress " + value.prettyPrint()
    return name if name == "Null" else name + " " + value.prettyPrint()


def serve(sock, printer, log):
    data, peer = sock.recvfrom(65535)
    message, _ = decoder.decode(data, asn1Spec=proto.Message())
    pdu = proto.apiMessage.getPDU(message)
    kind = "SET" if pdu.isSameTypeWith(proto.SetRequestPDU()) else "GET"
    community = bytes(proto.apiMessage.getCommunity(message)).hex()
    bindings = ", ".join(f"{name.prettyPrint()}={text(value)}"
                         for name, value in proto.apiPDU.getVarBinds(pdu))
    log.write(f"{kind} from {peer[0]} to {sock.getsockname()[0]}, community {community}, "
              f"{bindings}\n")
    log.flush()
    if not printer.silent:
        for datagram in printer.answer(message, pdu):
            sock.sendto(datagram, peer)


def listen():
    """A socket for each printer, all on the same port."""
    while True:
        sockets, port = {}, 0
        try:
            for host in PRINTERS:
                sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                sockets[sock] = Printer(host, **PRINTERS[host])
                sock.bind((host, port))
                port = sock.getsockname()[1]
            return sockets, port
        except OSError:  # somebody else has the port at one of the addresses
            for sock in sockets:
                sock.close()


def main():
    sockets, port = listen()
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "requests")
        with open(path, "w", encoding="ascii") as log:
            def loop():
                selector = selectors.DefaultSelector()
                for sock in sockets:
                    selector.register(sock, selectors.EVENT_READ)
                while True:
                    for key, _ in selector.select():
                        serve(key.fileobj, sockets[key.fileobj], log)
            threading.Thread(target=loop, daemon=True).start()
            environment = dict(os.environ, KEST_SNMP_PORT=str(port), KEST_SNMP_LOG="Z:" + path)
            return subprocess.run(sys.argv[1:], env=environment, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
