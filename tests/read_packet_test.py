#!/usr/bin/env python3
"""Damages packets and compares what the library says of them with what a reader says that was
written from docs/wire-format.md: accepted, or refused by the same rule.

    read_packet_test.py LIBRARY FOLDER-OF-read_packet.py
"""
import collections
import ctypes
import itertools
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
# The fields that rules are about, in the header, the arguments and the pairs; and two that none is
# about, the length of the header and the flags.
FIELDS = [(0, 4), (4, 4), (32, 4), (36, 4), (40, 4), (44, 1), (45, 4), (49, 2), (51, 4), (55, 4)]
FIELDS += [(59, 4)] + [(at + i, size) for at in range(107, 123, 4) for i, size in ((0, 3), (3, 1))]
FIELDS += [(at, 4) for at in range(123, 171, 4)]
END = len(WHOLE)


def values(at, size):
    """What is there, what is almost that, and what lies at both sides of a limit."""
    there, most = int.from_bytes(WHOLE[at:at + size], "little"), 256 ** size - 1
    some = (there, there ^ 1, there ^ (most + 1) // 2, most, *range(6), 4095, 4096)
    return sorted({value & most for value in (*some, *range(END - 17, END + 2))})


def damaged(*fields):
    packet = bytearray(WHOLE)
    for (at, size), value in fields:
        packet[at:at + size] = value.to_bytes(size, "little")
    return bytes(packet)


def cases():
    """Every length, every two neighbours with all their values, and some of any two fields."""
    yield from (WHOLE[:length] for length in range(64, END + 1))
    single = {field: [(field, value) for value in values(*field)] for field in FIELDS}
    for one, two in zip(FIELDS, FIELDS[1:]):
        yield from itertools.starmap(damaged, itertools.product(single[one], single[two]))
    rng = random.Random(1)
    for _ in range(5000):
        yield damaged(*(rng.choice(single[field]) for field in rng.sample(FIELDS, 2)))


def library_says(packet):
    log.truncate(0)
    log.seek(0)
    ours.send(packet)
    received = comm.comm_socket_v4_client_get_packet_from_server(endpoint)
    if received:
        comm.comm_socket_v4_packet_release(ctypes.c_void_p(received))
        return "accepted"
    log.seek(0)
    return log.read().decode().split("]: packet validation failed. ")[1].split("\n")[0]


def reader_says(packet):
    try:
        read = Packet(packet)
        list(read.arguments()), list(read.pairs()), read.string(read.command_at)
        return "accepted"
    except Refused as rule:
        return str(rule)


seen = collections.Counter()
for case in cases():
    library, reader = library_says(case), reader_says(case)
    if library != reader:
        changed = [at for at, byte in enumerate(case) if byte != WHOLE[at]]
        print(f"library: {library}\nreader:  {reader}\npacket:  {case.hex()}, changed at {changed}")
        sys.exit(1)
    seen["".join(c for c in library.split("(")[0] if not c.isdigit())] += 1
for rule, count in seen.most_common():
    print(count, rule)
# Twenty texts, and packets that are accepted.
sys.exit(len(seen) != 21)
