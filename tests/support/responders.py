"""Sockets of simulated hosts, which hear multicast on every interface and use any address that is
routed to this computer."""
import heapq
import ipaddress
import itertools
import os
import selectors
import socket
import struct
import threading
import time

FAMILIES = socket.AF_INET, socket.AF_INET6

# Linux's numbers; Python 3.11 does not have them.
IP_PKTINFO = 8
IPV6_FREEBIND = 78  # answer from addresses that are routed here, if on no interface


def options(text):
    """The values of 'KEY=VALUE KEY ...'"""
    return dict(option.partition("=")[::2] for option in text.split())


def addresses(values, first):
    """(family, addresses) of a group: `count` of them, from `first` on"""
    first = ipaddress.ip_address(values.get("first", first))
    family = socket.AF_INET if first.version == 4 else socket.AF_INET6
    return family, [str(first + n) for n in range(int(values.get("count", 1)))]


def udp_socket(family, port, groups, group6):
    udp = socket.socket(family, socket.SOCK_DGRAM)
    udp.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    udp.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4 << 20)
    if family == socket.AF_INET6:
        udp.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        udp.setsockopt(socket.IPPROTO_IPV6, IPV6_FREEBIND, 1)
    for index, _ in socket.if_nameindex():
        if family == socket.AF_INET6:
            udp.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, struct.pack(
                "=16si", socket.inet_pton(family, group6), index))
            continue
        for group in groups:
            udp.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, struct.pack(
                "=4s4si", socket.inet_aton(group), bytes(4), index))
    udp.bind(("", port))
    return udp


def tcp_socket(family, host, port):
    listener = socket.socket(family, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    if family == socket.AF_INET6:
        listener.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        listener.setsockopt(socket.IPPROTO_IPV6, IPV6_FREEBIND, 1)
    listener.bind((host, port))
    listener.listen(1024)
    return listener


def end_process(failure):
    """An exception in any thread ends the process, so that the test notices."""
    threading.__excepthook__(failure)
    os._exit(1)


def send(udp, datagram, source, to):
    packed = socket.inet_pton(udp.family, source)
    if udp.family == socket.AF_INET:
        control = (socket.IPPROTO_IP, IP_PKTINFO, struct.pack("=i4s4x", 0, packed))
    else:
        control = (socket.IPPROTO_IPV6, socket.IPV6_PKTINFO, packed + struct.pack("=i", 0))
    udp.sendmsg([datagram], [control], 0, to)


def serve(sockets, answers):
    """Sends, for ever, what answers(socket) yields when something has come to one of the sockets:
    (delay in seconds, socket, datagram, address that it comes from, address that it goes to)."""
    selector = selectors.DefaultSelector()
    for udp in sockets:
        selector.register(udp, selectors.EVENT_READ)
    print("ready", flush=True)
    waiting, order = [], itertools.count()
    while True:
        timeout = max(0, waiting[0][0] - time.monotonic()) if waiting else None
        for key, _ in selector.select(timeout):
            now = time.monotonic()
            for delay, *answer in answers(key.fileobj):
                heapq.heappush(waiting, (now + delay, next(order), *answer))
        while waiting and waiting[0][0] <= time.monotonic():
            send(*heapq.heappop(waiting)[2:])
