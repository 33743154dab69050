#!/usr/bin/env python3
"""Reads packets from their bytes alone, as docs/wire-format.md describes them, without the library.

    read_packet.py FILE
"""
import struct
import sys

TEXT, BINARY, UINT64, DOUBLE, JSON, INT64 = range(6)
NUMBERS = {UINT64: "Q", DOUBLE: "d", INT64: "q"}
HEADER = struct.Struct("<IIQQQIIIBIHIII")


class Refused(Exception):
    """The rule that a packet breaks, as the library words it."""


class Packet:
    def __init__(self, packet):
        if len(packet) < 64:
            raise Refused("too short")
        self.packet = packet
        (self.sighdr, _, self.stream_id, self.message_id, self.error_code, self.flags,
         self.error_at, self.command_at, self.argc, self.argv_at, self.pair_count, self.pairs_at,
         self.data_at, self.data_length) = HEADER.unpack_from(packet)
        self.check_header()
        self.entries = struct.unpack_from(f"<{self.argc}I", packet, self.argv_at)
        self.pair_entries = [struct.unpack_from("<IIII", packet, self.pairs_at + 16 * i)
                             for i in range(self.pair_count)]
        self.check_arguments()
        self.check_pairs()

    def check_header(self):
        end = len(self.packet)
        rules = (
            (self.sighdr != 0xABCD0201, "sighdr wrong"),
            (self.pair_count > 4095, "nv_pair_table_count >= 4096"),
            (self.argv_at >= end, "argv_offset out of bounds"),
            (self.pairs_at >= end, "nv_pair_table_offset out of bounds"),
            (self.argc and not self.argv_at, "argv invalid: count != 0 offset == 0"),
            (not self.argc and self.argv_at, "argv invalid: count == 0 offset != 0"),
            (self.pair_count and not self.pairs_at,
             "nv_pair_table invalid: count != 0 offset == 0"),
            (not self.pair_count and self.pairs_at,
             "nv_pair_table invalid: count == 0 offset != 0"),
            (self.argv_at + 4 * self.argc > end, "argv invalid: offset+count > buffer_length"),
            (self.pairs_at + 16 * self.pair_count > end,
             "nv_pair_table invalid: offset+count > buffer_length"),
            (self.error_at >= end, "error string out of bounds"),
            (not 0 < self.command_at < end,
             f"command string out of bounds or missing ({self.command_at})"),
            (self.data_at and not self.data_length, "binary data: offset != 0 length == 0"),
            (self.data_at and (self.data_at >= end or self.data_length > end),
             "binary data: offset+length > buffer_length"),
            (not self.data_at and self.data_length, "binary data: offset == 0 length != 0"),
            (self.data_at + self.data_length > end, "binary data: offset+length > buffer_length"),
        )
        for broken, text in rules:
            if broken:
                raise Refused(text)

    def check_arguments(self):
        for i, entry in enumerate(self.entries):
            kind, at = entry >> 24, entry & 0xFFFFFF
            if kind != TEXT and kind not in NUMBERS:
                raise Refused(f"argv[{i}] unsupported type {kind}")
            if at + (1 if kind == TEXT else 8) > len(self.packet):
                raise Refused(f"argv[{i}] out of bounds ({at})")

    def check_pairs(self):
        end = len(self.packet)
        for i, (name_at, at, length, _) in enumerate(self.pair_entries):
            if not 0 < name_at < end:
                raise Refused(f"nv_pair[{i}] name missing or out of bounds ({name_at})")
            if not 0 < at < end:
                raise Refused(f"nv_pair[{i}] value missing or out of bounds ({at})")
            if at + length > end:
                raise Refused(f"nv_pair[{i}] value+length > buffer_length")

    def string(self, at):
        return self.packet[at:].split(b"\0", 1)[0].decode(errors="replace") if at else ""

    def numbers(self, kind, at, count):
        return list(struct.unpack_from(f"<{count}{NUMBERS[kind]}", self.packet, at))

    def arguments(self):
        for entry in self.entries:
            kind, at = entry >> 24, entry & 0xFFFFFF
            if kind == TEXT:
                yield self.string(at)
            else:
                yield self.numbers(kind, at, 1)[0] if at else 0

    def pairs(self):
        for name_at, at, length, kind in self.pair_entries:
            if kind in NUMBERS:
                value = self.numbers(kind, at, length // 8)
            else:
                value = self.packet[at:at + length]
                if kind in (TEXT, JSON):
                    value = value.decode(errors="replace")
            yield self.string(name_at), kind, value


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    with open(sys.argv[1], "rb") as file:
        packet = Packet(file.read())
    print("request" if packet.flags & 1 else "response", "async" if packet.flags & 2 else "",
          ("", "first part", "middle part", "last part")[packet.flags >> 2 & 3])
    print("stream", packet.stream_id, "message", packet.message_id, "error", packet.error_code,
          packet.string(packet.error_at))
    print("command:", packet.string(packet.command_at))
    for argument in packet.arguments():
        print("argument:", argument)
    for name, kind, value in packet.pairs():
        print(f"pair {name}, type {kind:#x}:", value)
    print("data:", packet.packet[packet.data_at:packet.data_at + packet.data_length])


if __name__ == "__main__":
    main()
