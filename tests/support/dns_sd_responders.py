#!/usr/bin/python3
"""A population of printers that announce themselves by DNS-SD over multicast DNS: one process that
answers queries as many hosts, as RFC 6762 says that one-shot queries are answered (section 6.7).

  dns_sd_responders.py 'KEY=VALUE ...' ...

Each argument is a group of printers that behave alike. The keys:

  first=10.77.1.1  address of the first printer, IPv4 or IPv6; the others follow it. All have to be
                   this host's. Printers hear the protocol of their addresses only.
  count=1          how many
  name=prn         their host names are NAME-N.local, with the instances NAME-N for each service
  deaf=0           how many sendings of a query they miss before they hear one
  bare             they answer with what was asked for alone, without additional records
  hostile=loop     each answer has names whose compression pointers do not end
  hostile=lie      each answer has a length or a count that is not true
  hostile=flood    they answer the first query a hundred times, each with other printers
  hostile=id       they answer another query than the one that was sent
  hostile=port     they answer from another port than 5353

Names in the queries end before the first pointer, as those of this project do. Prints `ready` when
all of that is in place.
"""
import random
import socket
import struct
import sys

import responders

PORT = 5353
GROUP, GROUP6 = "224.0.0.251", "ff02::fb"
A, PTR, TXT, AAAA, SRV = 1, 12, 16, 28, 33
SERVICES = {"_pdl-datastream._tcp.local": 9100, "_printer._tcp.local": 515,
            "_ipp._tcp.local": 631, "_ipps._tcp.local": 631}


def wire(name):
    return b"".join(bytes((len(label),)) + label.encode() for label in name.split(".")) + b"\0"


def record(name, kind, data, length=None):
    return wire(name) + struct.pack(">HHIH", kind, 1, 10, len(data) if length is None
                                    else length) + data


class Query:
    """The questions and known answers of a query; an exception when it is none."""

    def __init__(self, data):
        self.id, flags, questions, answers = struct.unpack(">HHHH", data[:8])
        if flags != 0:
            raise ValueError("no query")
        self.asked, self.known, at = {}, set(), 12
        self.section = data[12:]
        for _ in range(questions):
            name, at = self.name(data, at)
            kind, question_class = struct.unpack(">HH", data[at:at + 4])
            if question_class != 0x8001:
                raise ValueError("not for a unicast answer")
            self.asked.setdefault(name, set()).add(kind)
            at += 4
        self.section, self.questions = data[12:at], questions
        for _ in range(answers):
            service, at = self.name(data, at)
            length = struct.unpack(">H", data[at + 8:at + 10])[0]
            self.known.add(self.name(data, at + 10)[0])
            at += 10 + length
        if at != len(data):
            raise ValueError("bytes too many")

    @staticmethod
    def name(data, at):
        labels = []
        while data[at] != 0:
            if data[at] >= 0xC0:
                rest, _ = Query.name(data, (data[at] & 0x3F) << 8 | data[at + 1])
                return ".".join(labels + [rest]), at + 2
            labels.append(data[at + 1:at + 1 + data[at]].decode())
            at += 1 + data[at]
        return ".".join(labels), at + 1

    def response(self, answers, additional=()):
        return struct.pack(">HHHHHH", self.id, 0x8400, self.questions, len(answers), 0,
                           len(additional)) + self.section + b"".join((*answers, *additional))


class Printers:
    """One argument of the command line."""

    def __init__(self, text):
        values = responders.options(text)
        self.family, self.addresses = responders.addresses(values, "10.77.1.1")
        self.prefix = values.get("name", "prn")
        self.deaf = int(values.get("deaf", 0))
        self.bare = "bare" in values
        self.hostile = values.get("hostile")
        self.sendings = {}
        # Made before the first query comes: there is little time to answer hundreds of them.
        self.by_question, self.all = {}, []
        for n in range(len(self.addresses)):
            records = list(self.records(n))
            self.all.append([record(*r) for r in records if r[1] != PTR])
            for r in records:
                known = Query.name(r[2], 0)[0] if r[1] == PTR else None
                self.by_question.setdefault(r[:2], []).append((n, record(*r), known))
        self.flood = [[[*self.others(n, copy)] for copy in range(100)]
                      for n in range(len(self.addresses)) if self.hostile == "flood"]

    def records(self, n):
        """(name, type, data) of all records of printer n"""
        name, host = f"{self.prefix}-{n}", f"{self.prefix}-{n}.local"
        address = socket.inet_pton(self.family, self.addresses[n])
        yield host, A if self.family == socket.AF_INET else AAAA, address
        for service, port in SERVICES.items():
            instance = f"{name}.{service}"
            texts = (f"rp=queue-{n}", f"ty=Model {n}", f"UUID=uuid-{n}", "note=x",
                     f"adminurl=http://{host}/")
            yield service, PTR, wire(instance)
            yield instance, SRV, struct.pack(">HHH", 0, 0, port) + wire(host)
            yield instance, TXT, b"".join(bytes((len(t),)) + t.encode() for t in texts)

    def answers(self, query):
        """(address, datagram) for each answer"""
        sending = self.sendings[query.id] = self.sendings.get(query.id, 0) + (
            1 if SERVICES.keys() & query.asked.keys() else 0)
        if sending <= self.deaf:
            return
        answers_of = {}
        for name, kinds in query.asked.items():
            for kind in kinds:
                for n, answer, known in self.by_question.get((name, kind), ()):
                    if known not in query.known:
                        answers_of.setdefault(n, []).append(answer)
        for n, answers in answers_of.items():
            address, rest = self.addresses[n], [] if self.bare else self.all[n]
            if self.hostile == "flood":
                if sending == 1:
                    yield from ((address, query.response(others)) for others in self.flood[n])
            elif self.hostile in ("loop", "lie"):
                for bad in getattr(self, self.hostile)(query, n):
                    yield address, query.response(bad, answers + rest)
                yield address, struct.pack(">HHHHHH", query.id, 0x8400, 65535, 65535, 0, 65535)
            else:
                yield address, query.response(answers, rest)

    def others(self, n, copy):
        for i in range(25):
            host = f"flood-{n}-{copy}-{i}.local"
            instance = f"flood-{n}-{copy}-{i}-{'x' * 40}._ipp._tcp.local"
            yield record("_ipp._tcp.local", PTR, wire(instance))
            yield record(instance, SRV, struct.pack(">HHH", 0, 0, 631) + wire(host))
            yield record(host, A, socket.inet_aton("10.77.99.99"))

    @staticmethod
    def loop(query, _):
        here = 12 + len(query.section)
        tail = struct.pack(">HHIH", A, 1, 10, 4) + bytes(4)
        for back in (0, 2):
            pointer = struct.pack(">H", 0xC000 | here + back)
            yield [pointer + pointer + tail]
            yield [b"\x01x" + pointer + tail]
        for name in (b"\xff\xff", b"\x40" + bytes(64)):
            yield [name + tail]

    @staticmethod
    def lie(_, n):
        liar = f"liar-{n}.local"
        yield [record(liar, A, bytes((10, 77, 1, 1)), 65535)]
        yield [record(liar, A, bytes((10, 77, 1, 1, 1)))]
        yield [record(f"liar-{n}._ipp._tcp.local", TXT, b"\x7frp=x")]
        yield [record(f"liar-{n}._ipp._tcp.local", SRV, bytes(6) + wire(liar), 4)]
        yield [record("_ipp._tcp.local", PTR, b"\x3fliar")]


def serve(population):
    sockets, others = ([responders.udp_socket(family, port, [GROUP], GROUP6)
                        for family in responders.FAMILIES] for port in (PORT, PORT + 1))

    def answers(udp):
        data, sender = udp.recvfrom(65536)
        for printers in population:
            if printers.family != udp.family:
                continue
            query = Query(data)
            if printers.hostile == "id":
                query.id ^= 1
            at = others[sockets.index(udp)] if printers.hostile == "port" else udp
            for source, datagram in printers.answers(query):
                delay = 0 if printers.hostile else random.uniform(0.02, 0.12)
                yield delay, at, datagram, source, sender

    responders.serve(sockets, answers)


if __name__ == "__main__":
    if len(sys.argv) < 2 or sys.argv[1] in ("-h", "--help"):
        sys.exit(__doc__)
    serve([Printers(text) for text in sys.argv[1:]])
