#!/usr/bin/env python3
"""Damages packets and compares what the library says of them with what a reader says that was
written from docs/wire-format.md: accepted, or refused by the same rule.

    read_packet_test.py LIBRARY FOLDER-OF-read_packet.py
"""
import collections
import ctypes
import os
import random
import socket
import struct
import sys
import tempfile

sys.path.insert(0, sys.argv[2])
from read_packet import Packet, Refused

comm = ctypes.CDLL(sys.argv[1])
for name in ("create", "client_get_packet_from_server", "packet_release"):
    getattr(comm, "comm_socket_v4_" + name).restype = ctypes.c_void_p

ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_NONBLOCK)
endpoint = ctypes.c_void_p(comm.comm_socket_v4_create())
assert comm.comm_socket_v4_connect_use_socketpair(endpoint, theirs.detach()) == 0
comm.comm_socket_v4_debug_logging(endpoint)
log = tempfile.TemporaryFile()
os.dup2(log.fileno(), 2)

STRINGS = b"cmd\0wrong\0text\0name\0"
NUMBERS = struct.pack("<Qdq", 1, 0.5, -1)
ARGUMENTS = struct.pack("<IIII", 73, 83 | 2 << 24, 91 | 3 << 24, 99 | 5 << 24)
PAIRS = struct.pack("<12I", 78, 73, 4, 0, 78, 83, 24, 2, 78, 83, 3, 0x61626772)
WHOLE = struct.pack("<IIQQQIIIBIHIII", 0xABCD0201, 63, 1, 2, 3, 1, 67, 63, 4, 107, 3, 123, 171, 5)
WHOLE += STRINGS + NUMBERS + ARGUMENTS + PAIRS + b"data!"
# The fields that rules are about: in the header, the arguments and the pairs.
FIELDS = [(0, 4), (36, 4), (40, 4), (44, 1), (45, 4), (49, 2), (51, 4), (55, 4), (59, 4)]
FIELDS += [(at, 3) for at in range(107, 123, 4)] + [(at, 1) for at in range(110, 123, 4)]
FIELDS += [(at, 4) for at in range(123, 171, 4)]


def damaged(rng):
    packet = bytearray(WHOLE)
    for at, size in rng.sample(FIELDS, rng.randint(0, 2)):
        limit = 256 ** size - 1
        value = rng.choice((0, 1, 5, 4095, 4096, limit, rng.randint(0, limit),
                            len(WHOLE) - rng.randint(-2, 30)))
        packet[at:at + size] = (value & limit).to_bytes(size, "little")
    return bytes(packet[:rng.choice((len(packet),) * 9 + (rng.randint(64, len(packet)),))])


def library_says(packet):
    log.truncate(0)
    log.seek(0)
    ours.send(packet)
    received = comm.comm_socket_v4_client_get_packet_from_server(endpoint)
    if received:
        comm.comm_socket_v4_packet_release(ctypes.c_void_p(received))
        return "accepted"
    log.seek(0)
    return log.read().decode().split("packet validation failed. ")[1].split("\n")[0]


def reader_says(packet):
    try:
        read = Packet(packet)
        list(read.arguments()), list(read.pairs()), read.string(read.command_at)
        return "accepted"
    except Refused as rule:
        return str(rule)


rng = random.Random(1)
seen = collections.Counter()
for _ in range(20000):
    case = damaged(rng)
    library, reader = library_says(case), reader_says(case)
    if library != reader:
        print(f"library: {library}\nreader:  {reader}\npacket:  {case.hex()}")
        sys.exit(1)
    seen["".join(c for c in library.split("(")[0] if not c.isdigit())] += 1
for rule, count in seen.most_common():
    print(count, rule)
# Twenty texts, and packets that are accepted.
sys.exit(len(seen) != 21)
