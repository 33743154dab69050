"""Packets: written in one go, and then read in place."""
from __future__ import annotations

import array
import ctypes
import enum
import errno
import json
import operator
import struct
from typing import (Any, Dict, Iterable, Iterator, List, Mapping, Optional, Protocol, Sequence,
                    SupportsIndex, Tuple, Union, cast)

from . import _library as lib
from .descriptor import Descriptor
from .errors import PacketError, Reason, last_error


class UInt64(int):
    """A number from 0 to 2^64 - 1, in a packet of the type uint64. A plain int is an int64 there:
    the type of a number never depends on its value."""

    def __new__(cls, value: SupportsIndex = 0) -> UInt64:
        number = super().__new__(cls, operator.index(value))
        if not 0 <= number < 1 << 64:
            raise OverflowError(f"{int(number)} is no uint64")
        return number


class Json(str):
    """The text of a JSON pair. Nobody has looked at what a peer sent before parse() does."""

    @classmethod
    def of(cls, value: object) -> Json:
        """The text of a value, as json.dumps writes it."""
        return cls(json.dumps(value))

    def parse(self) -> Any:
        """The value; ValueError for what is no JSON."""
        return json.loads(self)


class FourCC(bytes):
    """Bytes of a type of the application's own: FourCC("rgba", b"...")."""

    code: int

    def __new__(cls, code: Union[str, int], value: bytes = b"") -> FourCC:
        if isinstance(code, str):
            characters = code.encode("latin-1")
            if len(characters) != 4:
                raise ValueError("a code has four characters")
            code = int.from_bytes(characters, "little")
        if not 0 <= code < 1 << 32:
            raise OverflowError(f"{code} is no uint32")
        this = super().__new__(cls, value)
        this.code = code
        return this

    def __getnewargs__(self) -> Tuple[int, bytes]:  # type: ignore[override]
        return self.code, bytes(self)

    def __repr__(self) -> str:
        return f"FourCC({self.code:#x}, {bytes(self)!r})"


class Multipart(enum.IntEnum):
    """Where a packet stands in a series."""

    NONE = 0
    FIRST = 1
    MIDDLE = 2
    LAST = 3


# What arguments are. A bool is none: say which number it is to be.
Argument = Union[str, int, float]
# What pairs hold, as it is read. Numbers are always a list, as they are in the packet.
Value = Union[str, Json, bytes, FourCC, List[int], List[UInt64], List[float]]
# What may be written as a pair: a number is a list of one. All numbers of a list are of one type;
# that of an empty one comes from an array.array of the type "q", "Q" or "d".
PairValue = Union[str, bytes, bytearray, memoryview, int, float, Sequence[int], Sequence[float],
                  "array.array[Any]"]
PairsToWrite = Union["Pairs", Mapping[str, PairValue], Iterable[Tuple[str, PairValue]]]


class HasFileno(Protocol):
    def fileno(self) -> int:
        ...


_NUMBER_TYPES = {"q": lib.INT64, "Q": lib.UINT64, "d": lib.DOUBLE}
_TYPE_CODES = {number: code for code, number in _NUMBER_TYPES.items()}


def encode(text: str) -> bytes:
    return text.encode("utf-8", "surrogateescape")


def decode(text: bytes) -> str:
    return text.decode("utf-8", "surrogateescape")


def encode_checked(text: str, most: int, part: str, index: int = 0) -> bytes:
    """The bytes of a text that goes into a packet whole."""
    if not isinstance(text, str):
        raise TypeError(f"{part}: a text is a str, not {type(text).__name__}")
    encoded = encode(text)
    if len(encoded) > most:
        raise PacketError(Reason.TOO_LONG, part, index)
    if b"\0" in encoded:
        raise PacketError(Reason.NUL_INSIDE, part, index)
    return encoded


def type_code_of(number: object) -> str:
    """How the array module calls the type of a number in a packet."""
    if isinstance(number, UInt64):
        return "Q"
    if isinstance(number, int) and not isinstance(number, bool):
        return "q"
    if isinstance(number, float):
        return "d"
    raise TypeError(f"no type of a packet holds {type(number).__name__}")


class _Window(ctypes.c_ubyte * (lib.MAX_RECEIVED_PACKET + 1)):  # type: ignore[misc]
    """The memory behind an address; only slices within the packet are taken of it."""

    handle: lib.Handle


def view_of(handle: lib.Handle) -> Tuple[int, memoryview]:
    """Where the bytes of a packet are, and a view of them in place, with the NUL behind them."""
    length = ctypes.c_size_t()
    address: int = lib.packet_get_buffer(handle, length)
    window = _Window.from_address(address)
    window.handle = handle
    return address, memoryview(window).cast("B")[:length.value + 1].toreadonly()


class Pairs:
    """The name/value pairs of a packet, in the order of writing. Several may share a name.

        packet.pairs["owner"]             the first of the name; KeyError when there is none
        packet.pairs.get("owner")         None in its place
        packet.pairs.get_all("owner")     all of the name
        packet.pairs.number("size")       the only number of the first; ValueError for other values
        for name, value in packet.pairs.items():

    Iteration gives names. A value is read when it is asked for: those of a peer may overlap, and
    all together be thousands of times as long as the packet. A list whose length is no multiple of
    8 ends before the bytes that are left over. A name beyond 4095 bytes, which no writer makes, is
    met in iteration only.
    """

    def __init__(self, handle: lib.Handle):
        address, self._bytes = view_of(handle)
        self._index: Optional[Dict[bytes, List[int]]] = None
        self._entries: List[Tuple[int, int, int, int]] = []
        count = lib.packet_nv_entries(handle)
        if count > 0:
            table = lib.packet_get_nv_entry(handle, 0)
            at = ctypes.addressof(table.contents) - address
            size = count * ctypes.sizeof(lib.PacketNvPair)
            entries: Iterator[Any] = struct.iter_unpack("<IIII", self._bytes[at:at + size])
            self._entries = list(entries)

    def __len__(self) -> int:
        return len(self._entries)

    def __iter__(self) -> Iterator[str]:
        return (self._name(entry) for entry in self._entries)

    def keys(self) -> Iterator[str]:
        return iter(self)

    def items(self) -> Iterator[Tuple[str, Value]]:
        return ((self._name(entry), self._value(entry)) for entry in self._entries)

    def values(self) -> Iterator[Value]:
        return (self._value(entry) for entry in self._entries)

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and bool(self._find(name))

    def __getitem__(self, name: str) -> Value:
        found = self._find(name)
        if not found:
            raise KeyError(name)
        return self._value(self._entries[found[0]])

    def get(self, name: str, default: Optional[Value] = None) -> Optional[Value]:
        found = self._find(name)
        return self._value(self._entries[found[0]]) if found else default

    def get_all(self, name: str) -> List[Value]:
        return [self._value(self._entries[i]) for i in self._find(name)]

    def number(self, name: str) -> Union[int, float]:
        value = self[name]
        if not isinstance(value, list) or len(value) != 1:
            raise ValueError(f"pair {name!r} is not one number")
        return value[0]

    def __repr__(self) -> str:
        return f"<Pairs of {len(self)}>"

    def as_they_are(self) -> Iterator[Tuple[str, int, memoryview]]:
        """Names, types and bytes."""
        return ((self._name(entry), entry[3], self._bytes[entry[1]:entry[1] + entry[2]])
                for entry in self._entries)

    def _find(self, name: str) -> List[int]:
        if self._index is None:
            self._index = {}
            for i, (at, _, _, _) in enumerate(self._entries):
                text = bytes(self._bytes[at:at + lib.MAX_NAME + 1])
                end = text.find(b"\0")
                if end >= 0:
                    self._index.setdefault(text[:end], []).append(i)
        return self._index.get(encode(name), [])

    def _text(self, start: int, end: int) -> str:
        return decode(bytes(self._bytes[start:end]).split(b"\0", 1)[0])

    def _name(self, entry: Tuple[int, int, int, int]) -> str:
        return self._text(entry[0], len(self._bytes))

    def _value(self, entry: Tuple[int, int, int, int]) -> Value:
        _, at, length, kind = entry
        if kind == lib.TEXT:
            return self._text(at, at + length)
        if kind == lib.JSON:
            return Json(self._text(at, at + length))
        if kind in _TYPE_CODES:
            numbers = array.array(_TYPE_CODES[kind], bytes(self._bytes[at:at + length // 8 * 8]))
            listed = numbers.tolist()
            return [UInt64(number) for number in listed] if kind == lib.UINT64 else listed
        value = bytes(self._bytes[at:at + length])
        return value if kind == lib.BINARY else FourCC(kind, value)


class Packet:
    """A packet, complete from the beginning: Packet("list", "/tmp", 5, pairs={"depth": 2}).

    What is made here is a request unless `request` is False; Packet.answer makes the response to
    one. What does not fit raises PacketError; nothing is cut or left out. An argument that is an
    empty text does not fit: the library would leave it out, and what follows would move up.

    args          text, int (an int64), UInt64 or float (a double)
    pairs         a mapping, or names and values in a row; see PairValue. Those of another packet go
                  byte by byte
    data          bytes, or what has a buffer
    descriptors   at most 8 numbers or open files. Duplicates go into the packet, what is given
                  stays the caller's. Once the packet was sent they are closed: it cannot be sent
                  again
    user_flags    bits 4 to 31

    A packet is not copied or pickled: bytes(packet) and from_bytes() do that, without descriptors.
    Packets that were received have passed validation, which says nothing of what their values mean.
    """

    def __init__(self, command: str, *args: Argument, pairs: PairsToWrite = (),
                 data: Union[bytes, bytearray, memoryview] = b"",
                 descriptors: Iterable[Union[int, HasFileno]] = (), request: bool = True,
                 is_async: bool = False, multipart: Multipart = Multipart.NONE, stream_id: int = 0,
                 message_id: int = 0, error_code: int = 0, error_string: str = "",
                 user_flags: int = 0):
        if user_flags & 0xF or not 0 <= user_flags < 1 << 32:
            raise PacketError(Reason.RESERVED, "header")
        flags = user_flags | Multipart(multipart) << lib.MULTIPART_SHIFT
        flags |= lib.FLAG_REQUEST if request else 0
        flags |= lib.FLAG_ASYNC if is_async else 0
        handle = lib.packet_create()
        if not handle:
            raise MemoryError
        self._handle: lib.Handle = handle
        lib.packet_set_flags(handle, flags)
        lib.packet_set_stream_id(handle, UInt64(stream_id))
        lib.packet_set_message_id(handle, UInt64(message_id))
        lib.packet_set_error_code(handle, UInt64(error_code))
        _Writer(handle).write(command, error_string, args, pairs, data, descriptors)
        self._args: Optional[Tuple[Argument, ...]] = None
        self._pairs: Optional[Pairs] = None

    @classmethod
    def _of(cls, handle: lib.Handle) -> Packet:
        packet = cls.__new__(cls)
        packet._handle = handle
        packet._args, packet._pairs = None, None
        return packet

    @classmethod
    def from_bytes(cls, data: bytes) -> Packet:
        """A packet that was saved; PacketError for bytes that a receiver would refuse."""
        if not lib.MIN_RECEIVED_PACKET <= len(data) <= lib.MAX_RECEIVED_PACKET:
            raise PacketError(Reason.NOT_VALID, "packet")
        packet, endpoint = cls._of(lib.packet_create()), lib.create()
        try:
            if not packet._handle or endpoint is None:
                raise MemoryError
            if lib.packet_set_buffer(packet._handle, bytes(data), len(data)) != 0:
                raise last_error()
            lib.shut_up(endpoint)
            if lib.client_on_recv_packet(endpoint, packet._handle) != 0:
                raise PacketError(Reason.NOT_VALID, "packet")
            return packet
        finally:
            lib.destroy(endpoint)

    def __bytes__(self) -> bytes:
        """The packet as it is sent, without its descriptors."""
        return bytes(view_of(self._handle)[1][:-1])

    def answer(self, *args: Argument, **fields: Any) -> Packet:
        """The response to this request: its command, message id and stream id, and what Packet
        takes besides."""
        fields = {"request": False, "message_id": self.message_id, "stream_id": self.stream_id,
                  **fields}
        return Packet(self.command, *args, **fields)

    @property
    def command(self) -> str:
        return decode(lib.packet_get_command(self._handle))

    @property
    def args(self) -> Tuple[Argument, ...]:
        """The arguments. One that a peer sent without a value is "" or 0."""
        if self._args is None:
            self._args = tuple(self._argument(i) for i in range(lib.packet_get_argc(self._handle)))
        return self._args

    def _argument(self, index: int) -> Argument:
        kind = lib.packet_get_argv_entry(self._handle, index).contents.type_code
        if kind == lib.TEXT:
            return decode(lib.packet_get_argv(self._handle, index))
        if kind == lib.UINT64:
            return UInt64(lib.packet_get_argv_uint64(self._handle, index))
        if kind == lib.INT64:
            return cast(int, lib.packet_get_argv_int64(self._handle, index))
        return cast(float, lib.packet_get_argv_double(self._handle, index))

    @property
    def pairs(self) -> Pairs:
        if self._pairs is None:
            self._pairs = Pairs(self._handle)
        return self._pairs

    @property
    def data(self) -> memoryview:
        """The data, in place and read-only. The view keeps the memory of the packet alive."""
        length = ctypes.c_size_t()
        address = lib.packet_get_data(self._handle, length)
        buffer, view = view_of(self._handle)
        start = address - buffer if address is not None else 0
        return view[start:start + length.value]

    @property
    def descriptor_count(self) -> int:
        """How many have come or are to be sent, those that were taken included."""
        return cast(int, lib.packet_attached_fd_count(self._handle))

    def take_descriptors(self) -> List[Descriptor]:
        """Hands the descriptors over, once; if the packet is sent on, it goes without them. Those
        that nobody takes are closed with it."""
        taken = []
        for i in range(self.descriptor_count):
            fd = lib.packet_get_attached_fd(self._handle, i)
            if fd >= 0:
                taken.append(Descriptor(fd))
        return taken

    @property
    def stream_id(self) -> int:
        return cast(int, lib.packet_get_stream_id(self._handle))

    @property
    def message_id(self) -> int:
        return cast(int, lib.packet_get_message_id(self._handle))

    @property
    def error_code(self) -> int:
        return cast(int, lib.packet_get_error_code(self._handle))

    @property
    def error_string(self) -> str:
        return decode(lib.packet_get_error_string(self._handle))

    @property
    def is_request(self) -> bool:
        return bool(self._flags & lib.FLAG_REQUEST)

    @property
    def is_async(self) -> bool:
        return bool(self._flags & lib.FLAG_ASYNC)

    @property
    def multipart(self) -> Multipart:
        return Multipart((self._flags & lib.MULTIPART_MASK) >> lib.MULTIPART_SHIFT)

    @property
    def is_last(self) -> bool:
        """Whether nothing of its series follows."""
        return self.multipart in (Multipart.NONE, Multipart.LAST)

    @property
    def user_flags(self) -> int:
        return self._flags & ~0xF

    @property
    def _flags(self) -> int:
        return cast(int, lib.packet_get_flags(self._handle))

    def __repr__(self) -> str:
        kind = "request" if self.is_request else "response"
        return (f"<Packet {kind} {self.command!r}, message {self.message_id}, {len(self.args)} "
                f"arguments, {len(self.pairs)} pairs, {len(self.data)} bytes of data>")


class _Writer:
    """Writes a packet, and refuses what the functions of the library would lose in silence."""

    def __init__(self, handle: lib.Handle):
        self._handle = handle
        self._left = lib.MAX_RECEIVED_PACKET

    def write(self, command: str, error_string: str, args: Sequence[Argument], pairs: PairsToWrite,
              data: Union[bytes, bytearray, memoryview],
              descriptors: Iterable[Union[int, HasFileno]]) -> None:
        begun = encode_checked(command, lib.MAX_COMMAND, "command")
        if not begun:
            raise PacketError(Reason.NO_COMMAND, "command")
        error = encode_checked(error_string, lib.MAX_ERROR_STRING, "error string")
        if lib.packet_begin_writing(self._handle, 0, begun, error) != 0:
            raise MemoryError
        if len(args) > lib.MAX_ARGUMENTS:
            raise PacketError(Reason.TOO_MANY, "argument", lib.MAX_ARGUMENTS)
        for index, argument in enumerate(args):
            self._write_argument(argument, index)
        self._write_pairs(pairs)
        self._write_data(data)
        for index, descriptor in enumerate(descriptors):
            self._attach(descriptor, index)
        self._end()

    def _reserve(self, size: int, part: str, index: int = 0) -> None:
        """Nothing is copied that is too much already; the whole is measured in the end."""
        self._left -= size
        if self._left < 0:
            raise PacketError(Reason.PACKET_TOO_LONG, part, index, errno.EMSGSIZE)

    def _write_argument(self, argument: Argument, index: int) -> None:
        if isinstance(argument, str):
            text = encode_checked(argument, lib.MAX_TEXT, "argument", index)
            if not text:
                raise PacketError(Reason.EMPTY_TEXT, "argument", index)
            self._reserve(len(text), "argument", index)
            done = lib.packet_write_argv(self._handle, text)
        else:
            code = type_code_of(argument)
            number = array.array(code, [argument])[0]  # OverflowError beyond an int64
            write = {"q": lib.packet_write_argv_int64, "Q": lib.packet_write_argv_uint64,
                     "d": lib.packet_write_argv_double}[code]
            done = write(self._handle, number)
        if done != 0:
            raise MemoryError

    def _write_pairs(self, pairs: PairsToWrite) -> None:
        if isinstance(pairs, Pairs):
            for index, (name, kind, value) in enumerate(pairs.as_they_are()):
                self._reserve(len(value), "pair", index)
                self._write_pair(name, kind, bytes(value), index)
            return
        named = pairs.items() if isinstance(pairs, Mapping) else pairs
        for index, (name, given) in enumerate(named):
            kind, encoded = self._encode_value(given, index)
            self._reserve(len(encoded), "pair", index)
            self._write_pair(name, kind, encoded, index)

    def _write_pair(self, name: str, kind: int, value: bytes, index: int) -> None:
        if index >= lib.MAX_PAIRS:
            raise PacketError(Reason.TOO_MANY, "pair", index)
        named = encode_checked(name, lib.MAX_NAME, "pair", index)
        self._reserve(len(named), "pair", index)
        if lib.packet_write_nv_pair_raw(self._handle, named, value, len(value), kind) != 0:
            raise MemoryError

    @staticmethod
    def _encode_value(value: PairValue, index: int) -> Tuple[int, bytes]:
        if isinstance(value, Json):
            return lib.JSON, encode_checked(value, lib.MAX_RECEIVED_PACKET, "pair", index)
        if isinstance(value, str):
            return lib.TEXT, encode_checked(value, lib.MAX_TEXT, "pair", index)
        if isinstance(value, FourCC):
            if value.code <= lib.INT64:
                raise PacketError(Reason.RESERVED, "pair", index)
            return value.code, value
        if isinstance(value, (bytes, bytearray, memoryview)):
            return lib.BINARY, bytes(value)
        if isinstance(value, array.array):
            if value.typecode not in _NUMBER_TYPES:
                raise TypeError(f"no type of a packet holds an array of {value.typecode!r}")
            return _NUMBER_TYPES[value.typecode], value.tobytes()
        numbers = [value] if isinstance(value, (int, float)) else list(value)
        codes = {type_code_of(number) for number in numbers}
        if len(codes) != 1:
            raise TypeError("the numbers of a pair are of one type, and that of none at all is "
                            "said by an array.array")
        code = codes.pop()
        return _NUMBER_TYPES[code], array.array(code, numbers).tobytes()

    def _write_data(self, data: Union[bytes, bytearray, memoryview]) -> None:
        view = memoryview(data)
        self._reserve(view.nbytes, "data")
        copy = bytes(view)
        if copy and lib.packet_write_data_binary(self._handle, copy, len(copy)) < 0:
            raise MemoryError

    def _attach(self, descriptor: Union[int, HasFileno], index: int) -> None:
        if index >= lib.MAX_ATTACHED_FDS:
            raise PacketError(Reason.TOO_MANY, "descriptor", index)
        if not isinstance(descriptor, int) and not hasattr(descriptor, "fileno"):
            raise TypeError(f"{type(descriptor).__name__} has no descriptor")
        fd = lib.as_int(descriptor if isinstance(descriptor, int) else descriptor.fileno())
        ctypes.set_errno(errno.EBADF)  # What a negative one fails with.
        if not lib.packet_attach_fd_to_send_cloexec(self._handle, fd):
            raise PacketError(Reason.LACKS_DESCRIPTOR, "descriptor", index, ctypes.get_errno())

    def _end(self) -> None:
        if lib.packet_write_end(self._handle) != 0:
            raise MemoryError
        length = ctypes.c_size_t()
        lib.packet_get_buffer(self._handle, length)
        if length.value > lib.MAX_RECEIVED_PACKET:
            raise PacketError(Reason.PACKET_TOO_LONG, "packet", 0, errno.EMSGSIZE)
        # A text or a value for which there was no memory is absent.
        arguments = (lib.packet_get_argv_entry(self._handle, i).contents
                     for i in range(lib.packet_get_argc(self._handle)))
        pairs = (lib.packet_get_nv_entry(self._handle, i).contents
                 for i in range(lib.packet_nv_entries(self._handle)))
        if not (all(any(entry.value_offset) for entry in arguments) and
                all(entry.name_offset and entry.value_offset for entry in pairs)):
            raise MemoryError
