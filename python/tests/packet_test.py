"""What packets of Python hold, read by the independent reader, and what they refuse."""
import array
import copy
import errno
import os
import pickle
import socket
import struct
import warnings

import pytest
import read_packet

import tarn_comm
from tarn_comm import FourCC, Json, Multipart, Packet, PacketError, Reason, UInt64

ODD = b"\xff\xc3\xbc".decode("utf-8", "surrogateescape")


def rich():
    return Packet("list", "text", ODD, -5, UInt64(2**64 - 1), 0.5,
                  pairs=[("n", 1), ("n", [2, -3]), ("u", UInt64(7)), ("d", [0.5, 1.5]),
                         ("none", array.array("Q")), ("t", ""), ("j", Json.of({"a": [1]})),
                         ("b", b"\0\1"), ("f", FourCC("rgba", b"xyz")), (ODD, ODD)],
                  data=b"some data", request=False, is_async=True, multipart=Multipart.MIDDLE,
                  stream_id=2**64 - 1, message_id=3, error_code=4, error_string="broken",
                  user_flags=1 << 31)


def test_others_read_what_was_written():
    read = read_packet.Packet(bytes(rich()))
    assert (read.flags, read.stream_id, read.message_id, read.error_code) == (
        1 << 31 | 2 << 2 | 2, 2**64 - 1, 3, 4)
    assert (read.string(read.command_at), read.string(read.error_at)) == ("list", "broken")
    shown = b"\xff\xc3\xbc".decode(errors="replace")
    assert list(read.arguments()) == ["text", shown, -5, 2**64 - 1, 0.5]
    rgba = int.from_bytes(b"rgba", "little")
    assert list(read.pairs()) == [
        ("n", 5, [1]), ("n", 5, [2, -3]), ("u", 2, [7]), ("d", 3, [0.5, 1.5]), ("none", 2, []),
        ("t", 0, ""), ("j", 4, '{"a": [1]}'), ("b", 1, b"\0\1"), ("f", rgba, b"xyz"),
        (shown, 0, shown)]
    assert bytes(rich())[read.data_at:].startswith(b"some data")


def test_what_is_read_is_what_was_written():
    for packet in rich(), Packet.from_bytes(bytes(rich())):
        assert packet.args == ("text", ODD, -5, 2**64 - 1, 0.5)
        assert isinstance(packet.args[3], UInt64) and not isinstance(packet.args[2], UInt64)
        pairs = packet.pairs
        assert dict(pairs.items()) == {
            "n": [2, -3], "u": [7], "d": [0.5, 1.5], "none": [], "t": "", "j": '{"a": [1]}',
            "b": b"\0\1", "f": b"xyz", ODD: ODD}
        assert (pairs["n"], pairs.get_all("n"), pairs.number("n"), len(pairs), list(pairs)[:3]) == (
            [1], [[1], [2, -3]], 1, 10, ["n", "n", "u"])
        assert pairs["j"].parse() == {"a": [1]} and pairs["f"].code == 0x61626772
        assert ("x" in pairs, pairs.get("x"), pairs.get_all("x")) == (False, None, [])
        for name, error in (("x", KeyError), ("d", ValueError), ("t", ValueError)):
            with pytest.raises(error):
                pairs.number(name)
        assert (packet.multipart, packet.is_request, packet.is_async, packet.user_flags) == (
            Multipart.MIDDLE, False, True, 1 << 31)
        assert (packet.error_code, packet.error_string, packet.is_last) == (4, "broken", False)
        again = Packet(packet.command, *packet.args, pairs=packet.pairs, data=packet.data)
        assert list(again.pairs.as_they_are()) == list(packet.pairs.as_they_are())
    # Data is in place, and outlives the packet.
    data = rich().data
    assert data == b"some data" and data.readonly
    assert Packet("none").data == b""
    answer = Packet("ask", message_id=5, stream_id=6).answer("done", error_code=7)
    assert (answer.command, answer.message_id, answer.stream_id, answer.is_request) == (
        "ask", 5, 6, False)


X = "x" * 255


@pytest.mark.parametrize("fits, does_not, reason, where", [
    (dict(command=X), dict(command=X + "x"), Reason.TOO_LONG, ("command", 0)),
    ({}, dict(command=""), Reason.NO_COMMAND, ("command", 0)),
    ({}, dict(command="a\0"), Reason.NUL_INSIDE, ("command", 0)),
    (dict(error_string="ü" * 2047), dict(error_string="ü" * 2048), Reason.TOO_LONG,
     ("error string", 0)),
    (dict(args=["a"] * 255), dict(args=["a"] * 256), Reason.TOO_MANY, ("argument", 255)),
    ({}, dict(args=["a", ""]), Reason.EMPTY_TEXT, ("argument", 1)),
    (dict(args=["x" * 65000]), dict(args=[1, "x" * 65536]), Reason.TOO_LONG, ("argument", 1)),
    (dict(pairs=[("", "")] * 3200), dict(pairs=[("", b"")] * 4096), Reason.TOO_MANY,
     ("pair", 4095)),
    (dict(pairs={"x" * 4095: 1}), dict(pairs={"x" * 4096: 1}), Reason.TOO_LONG, ("pair", 0)),
    ({}, dict(pairs={"a": Json("\0")}), Reason.NUL_INSIDE, ("pair", 0)),
    (dict(pairs={"a": FourCC(6)}), dict(pairs={"a": FourCC(5)}), Reason.RESERVED, ("pair", 0)),
    ({}, dict(pairs={"a": b"", "b": bytes(70000)}), Reason.PACKET_TOO_LONG, ("pair", 1)),
    (dict(data=bytes(65551 - 63 - 4)), dict(data=bytes(65551 - 63 - 3)), Reason.PACKET_TOO_LONG,
     ("packet", 0)),
    (dict(descriptors=[0] * 8), dict(descriptors=[0] * 9), Reason.TOO_MANY, ("descriptor", 8)),
    ({}, dict(descriptors=[0, -1]), Reason.LACKS_DESCRIPTOR, ("descriptor", 1)),
    ({}, dict(user_flags=4), Reason.RESERVED, ("header", 0)),
])
def test_nothing_is_lost_in_silence(fits, does_not, reason, where):
    def make(command="new", args=(), **fields):
        return Packet(command, *args, **fields)

    assert len(bytes(make(**fits))) <= 65551
    with pytest.raises(PacketError) as caught:
        make(**does_not)
    assert (caught.value.reason, (caught.value.part, caught.value.index)) == (reason, where)
    expected = {Reason.PACKET_TOO_LONG: errno.EMSGSIZE, Reason.LACKS_DESCRIPTOR: errno.EBADF}
    assert caught.value.errno == expected.get(reason, errno.EINVAL)


def test_types_are_not_guessed():
    for bad in True, None, b"bytes", [1]:
        with pytest.raises(TypeError):
            Packet("a", bad)
    for bad in True, None, [], [1, 2.5], [UInt64(1), 1], array.array("i"), {}, object():
        with pytest.raises(TypeError):
            Packet("a", pairs={"a": bad})
    for bad in 2**63, -2**63 - 1:
        with pytest.raises(OverflowError):
            Packet("a", bad)
        with pytest.raises(OverflowError):
            Packet("a", pairs={"a": [0, bad]})
    for bad in -1, 2**64:
        with pytest.raises(OverflowError):
            UInt64(bad)
        with pytest.raises(OverflowError):
            Packet("a", message_id=bad)
    for bad, error in (1 << 32, OverflowError), ("0", TypeError):
        with pytest.raises(error):
            Packet("a", descriptors=[bad])
    with pytest.raises(UnicodeEncodeError):
        Packet("a", "\ud800")


def test_what_is_owned_once_is_not_copied():
    here, there = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    with there, tarn_comm.Client(here) as client, tarn_comm.Descriptor(os.dup(0)) as descriptor:
        for owner in rich(), rich().pairs, client, descriptor:
            for copy_it in copy.deepcopy, pickle.dumps:
                with pytest.raises(TypeError):
                    copy_it(owner)
        for owner in client, descriptor:
            with pytest.raises(TypeError):
                copy.copy(owner)
    error = pickle.loads(pickle.dumps(PacketError(Reason.TOO_MANY, "pair", 4095, errno.EMSGSIZE)))
    assert (error.reason, error.index, error.errno) == (Reason.TOO_MANY, 4095, errno.EMSGSIZE)
    assert copy.copy(FourCC("rgba", b"x")).code == FourCC("rgba").code


def test_bytes_of_a_peer_are_checked_and_not_believed():
    good = bytes(Packet("a", 1, pairs={"n": [1, 2], "t": "abc"}))
    for bad in b"", good[:63], good[:-1], b"x" + good[1:], good + bytes(70000):
        with pytest.raises(PacketError) as caught:
            Packet.from_bytes(bad)
        assert caught.value.reason is Reason.NOT_VALID
    # Names, values and the table itself overlap; a list ends within a number; no text ends.
    table = 63
    pairs = [(table, table, 23, 2), (table, 66, 70, 0), (table, table, 74, 1), (76, 70, 9, 4)]
    header = struct.pack("<IIQQQIIIBIHIII", 0xABCD0201, 63, 0, 0, 0, 0, 0, table, 0, 0, len(pairs),
                         table, 0, 0)
    hostile = header + b"".join(struct.pack("<IIII", *pair) for pair in pairs)
    read = Packet.from_bytes(hostile + b"x" * 10).pairs
    name = hostile[table:].split(b"\0")[0].decode("utf-8", "surrogateescape")
    assert read.get_all(name) == [list(struct.unpack_from("<QQ", hostile, table)), "",
                                  hostile[table:] + b"x" * 10]
    # 4092 values, each the whole packet: only what is asked for is read.
    count = 4092
    header = struct.pack("<IIQQQIIIBIHIII", 0xABCD0201, 63, 0, 0, 0, 0, 0, 1, 0, 0, count, 63, 0, 0)
    whole = 63 + 16 * count
    packet = Packet.from_bytes(header + struct.pack("<IIII", 4, 1, whole - 1, 1) * count)
    assert len(packet.pairs) == count and len(packet.pairs["?"]) == whole - 1


@pytest.mark.filterwarnings("ignore::pytest.PytestUnraisableExceptionWarning")
def test_descriptors_are_owned_once():
    read_end, write_end = os.pipe()
    with open(read_end, "rb") as file:
        packet = Packet("take", descriptors=[file, write_end])
        os.close(write_end)
        assert packet.descriptor_count == 2
        first, second = packet.take_descriptors()
        assert packet.take_descriptors() == []
        with second:
            os.write(second.fileno(), b"x")
        assert second.closed
        for use in second.fileno, second.detach:
            with pytest.raises(ValueError):
                use()
        number = first.detach()
        assert os.read(number, 2) == b"x" and first.closed
        os.close(number)
        del packet
        Packet("drop", descriptors=[file])
        with pytest.warns(ResourceWarning):
            del first, second
            Packet("leave", descriptors=[file]).take_descriptors()
        with warnings.catch_warnings():
            warnings.simplefilter("error")  # __del__ closes all the same.
            Packet("leave", descriptors=[file]).take_descriptors()
    with pytest.raises(ValueError):
        tarn_comm.Descriptor(-1)
