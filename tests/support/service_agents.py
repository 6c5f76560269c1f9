#!/usr/bin/python3
"""A population of SLP service agents: one process that answers attribute requests as many hosts.

  service_agents.py 'SERVICE KEY=VALUE ...' ...

Each argument is a group of agents that answer requests for one service type. The keys:

  first=10.77.0.1  address of the first agent, IPv4 or IPv6; the others follow it. All have to be
                   this host's. Agents hear the protocol of their addresses only.
  count=1          how many
  version=2        the protocol version that they speak
  list=TEXT        the attribute list; {ip}, {n} and {mac} stand for the agent's own
  delay=0          seconds after which they answer; delay=A-B spreads them over that time
  copies=1         how often they send each answer
  deaf=0           how many sendings of a request they miss before they hear one
  error=0          the error code that they answer with instead of a list
  silent           they never answer
  unicast          they hear only what is sent to them alone
  tcp=whole        the datagram is marked as cut short, and the list comes by TCP: `whole`, or
                   `stall` (nothing comes), `drip` (a byte now and then), `endless` (bytes
                   without end), `cut` (half of it), `late` (after 0.3 s), `second` (nothing comes
                   at the first request; after 0.6 s at others), `refuse` (of no connection: none
                   is taken)

Agents hear 239.255.255.253, 224.0.1.22 and FF02::116 on every interface, and their own addresses,
at port 427; they are silent when they find themselves among the responders of a request. A blank
in a list is written as `_`. Prints `ready` when all of that is in place.
"""
import ipaddress
import socket
import struct
import sys
import threading
import time

import responders

PORT = 427
GROUPS = ("239.255.255.253", "224.0.1.22")
GROUP6 = "ff02::116"
ATTRIBUTE_REQUEST, ATTRIBUTE_REPLY = 6, 7
MAX_DATAGRAM = 1400

IP_RECVTTL = 12  # Linux's number; Python 3.11 does not have it


class Reader:
    def __init__(self, data):
        self.data = data

    def number(self, size):
        return int.from_bytes(self.take(size), "big")

    def text(self):
        return self.take(self.number(2)).decode()

    def take(self, size):
        if size > len(self.data):
            raise ValueError("cut short")
        taken, self.data = self.data[:size], self.data[size:]
        return taken


class Request:
    """An attribute request (RFC 2608, 10.3; RFC 2165, 13); ValueError when it is none."""

    def __init__(self, data):
        reader = Reader(data)
        self.version, function = reader.number(1), reader.number(1)
        if self.version not in (1, 2) or function != ATTRIBUTE_REQUEST:
            raise ValueError("no attribute request")
        length = reader.number(2 if self.version == 1 else 3)
        if length != len(data):
            raise ValueError("wrong length")
        flags = reader.number(self.version)
        self.multicast = self.version == 2 and flags & 0x2000 != 0
        reader.take(5 if self.version == 1 else 3)
        self.xid = reader.number(2)
        if self.version == 2:
            reader.text()
        self.responders = reader.text().split(",")
        self.service, self.scopes, self.attributes = (reader.text() for _ in range(3))
        if self.version == 2:
            reader.text()
        if reader.data:
            raise ValueError("bytes too many")

    def reply(self, body, overflow=False):
        if self.version == 1:
            return struct.pack(">BBHBB2sHH", 1, ATTRIBUTE_REPLY, 12 + len(body),
                               0x80 if overflow else 0, 0, b"en", 106, self.xid) + body
        return (bytes((2, ATTRIBUTE_REPLY)) + (16 + len(body)).to_bytes(3, "big")
                + struct.pack(">H3xHH2s", 0x8000 if overflow else 0, self.xid, 2, b"en") + body)

    def list_body(self, text, error=0):
        end = b"\0" if self.version == 2 else b""
        return struct.pack(">HH", error, len(text)) + text + end


class Agents:
    """One argument of the command line."""

    def __init__(self, text):
        self.service, *options = text.split(maxsplit=1)
        values = responders.options("".join(options))
        self.family, addresses = responders.addresses(values, "10.77.0.1")
        self.version = int(values.get("version", 2))
        template = values.get("list", "(ip={ip}),(mac={mac}),(n={n})").replace("_", " ")
        earliest, _, latest = values.get("delay", "0").partition("-")
        self.delays = float(earliest), float(latest or earliest)
        self.copies = int(values.get("copies", 1))
        self.deaf = int(values.get("deaf", 0))
        self.error = int(values.get("error", 0))
        self.silent = "silent" in values
        self.unicast = "unicast" in values
        self.tcp = values.get("tcp")
        # Made before the first request comes, whose answers have to be in time.
        self.lists = {address: template.format(ip=address, n=n, mac=f"0004{n:08x}").encode()
                      for n, address in enumerate(addresses)}
        self.heard = {}
        self.asked = set()  # by TCP

    def answers(self, request, family, asked):
        """(delay, address, datagram) for each agent that answers; `asked` is one, or None."""
        if (request.service, request.version, family) \
                != (self.service, self.version, self.family) \
                or self.silent or (self.unicast and asked is None):
            return
        sending = self.heard[request.xid] = self.heard.get(request.xid, 0) + 1
        if sending <= self.deaf:
            return
        heard = set(request.responders)
        for n, address in enumerate(self.lists):
            if address in heard or asked not in (None, address):
                continue
            delay = self.delays[0] + (self.delays[1] - self.delays[0]) * n / len(self.lists)
            for _ in range(self.copies):
                yield delay, address, self.datagram(request, address)

    def datagram(self, request, address):
        if self.error:
            return request.reply(request.list_body(b"", self.error))
        text = self.lists[address]
        if self.tcp:
            return request.reply(request.list_body(text[:MAX_DATAGRAM - 100]), overflow=True)
        return request.reply(request.list_body(text))

    def serve(self, connection, request, address):
        """Answers a request that came by TCP."""
        reply = request.reply(request.list_body(self.lists[address]))
        is_first = address not in self.asked
        self.asked.add(address)
        if self.tcp == "whole":
            connection.sendall(reply)
        elif self.tcp == "late":
            time.sleep(0.3)
            connection.sendall(reply)
        elif self.tcp == "second" and not is_first:
            time.sleep(0.6)
            connection.sendall(reply)
        elif self.tcp == "cut":
            connection.sendall(reply[:len(reply) // 2])
        elif self.tcp in ("stall", "second"):
            connection.recv(1)
        elif self.tcp == "drip":
            for byte in reply:
                connection.sendall(bytes((byte,)))
                time.sleep(0.2)
        elif self.tcp == "endless":
            connection.sendall(reply[:2] + b"\xff\xff\xff")
            while True:
                connection.sendall(b"x" * 65536)


def udp_socket(family):
    """A socket that tells which address a datagram came to."""
    udp = responders.udp_socket(family, PORT, GROUPS, GROUP6)
    if family == socket.AF_INET:
        udp.setsockopt(socket.IPPROTO_IP, responders.IP_PKTINFO, 1)
        udp.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
    else:
        udp.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_RECVPKTINFO, 1)
    return udp


def receive(udp):
    """(request, its sender, the address that it was sent to)"""
    data, ancillary, _, sender = udp.recvmsg(65536, 1024)
    told = {kind: value for _, kind, value in ancillary}
    if udp.family == socket.AF_INET6:
        return Request(data), sender, socket.inet_ntop(udp.family, told[socket.IPV6_PKTINFO][:16])
    to = socket.inet_ntop(udp.family, told[responders.IP_PKTINFO][8:12])
    # An agent far away hears only what was sent to go far (RFC 2608, section 6.1).
    if ipaddress.ip_address(to).is_multicast and told[socket.IP_TTL] != struct.pack("=i", 255):
        raise ValueError("it does not come this far")
    return Request(data), sender, to


def serve_datagrams(population):
    def answers(udp):
        try:
            request, sender, to = receive(udp)
        except ValueError:
            return
        asked = None if ipaddress.ip_address(to).is_multicast else to
        for agents in population:
            for delay, source, datagram in agents.answers(request, udp.family, asked):
                yield delay, udp, datagram, source, sender

    responders.serve([udp_socket(family) for family in responders.FAMILIES], answers)


def serve_connection(population, connection):
    connection.settimeout(60)
    address = connection.getsockname()[0]
    try:
        request = Request(connection.recv(2000))
        for agents in population:
            if (agents.service, agents.version) == (request.service, request.version) \
                    and not request.multicast \
                    and address in agents.lists and address not in request.responders:
                agents.serve(connection, request, address)
    except (OSError, ValueError):
        pass
    connection.close()


def serve_streams(population, listener):
    while True:
        connection, _ = listener.accept()
        threading.Thread(target=serve_connection, args=(population, connection),
                         daemon=True).start()


def main():
    if len(sys.argv) < 2 or sys.argv[1] in ("-h", "--help"):
        sys.exit(__doc__)
    threading.excepthook = responders.end_process
    population = [Agents(text) for text in sys.argv[1:]]
    if any(agents.tcp and agents.tcp != "refuse" for agents in population):
        for family in responders.FAMILIES:
            listener = responders.tcp_socket(family, "", PORT)
            threading.Thread(target=serve_streams, args=(population, listener),
                             daemon=True).start()
    serve_datagrams(population)


if __name__ == "__main__":
    main()
