"""What the package raises beside the exceptions of Python."""
from __future__ import annotations

import ctypes
import enum
import errno
import os
from typing import Any, Optional, Tuple


class Reason(enum.Enum):
    """Why there is no packet."""

    PACKET_TOO_LONG = "the packet is longer than a receiver takes"
    NO_COMMAND = "an empty command"
    TOO_LONG = "a text beyond its limit"
    NUL_INSIDE = "a text with a NUL in it"
    EMPTY_TEXT = "an empty text"
    TOO_MANY = "more than a packet holds"
    RESERVED = "reserved for the library"
    LACKS_DESCRIPTOR = "no descriptor"
    NOT_VALID = "the bytes are no packet"


class PacketError(OSError, ValueError):
    """A packet cannot be made of what was given: nothing is cut, and nothing left out.

    `part` is "command", "error string", "argument", "pair", "data", "descriptor", "header" or
    "packet", and `index` the number of the argument, pair or descriptor.
    """

    def __init__(self, reason: Reason, part: str, index: int = 0, error: int = errno.EINVAL):
        where = f"{part} {index}" if part in ("argument", "pair", "descriptor") else part
        super().__init__(error, f"{where}: {reason.value}")
        self.reason, self.part, self.index = reason, part, index

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self.reason, self.part, self.index, self.errno)


class Disconnected(ConnectionError):
    """The connection has ended, or was closed on this side. `errno` says what it failed with,
    ENOTCONN where it did not; `reason`, of a Connection, why it has gone: "peer_ended", "failed",
    "unsendable", "no_first", "idle", "not_finished", "disconnected" or "finished", as
    CommLoopReason in comm_loop.h has it."""

    reason = ""


def error_of(number: int, path: Optional[str] = None) -> Exception:
    """The exception of an errno."""
    if number == errno.ENOMEM:
        return MemoryError()
    if number == errno.ENOTCONN:
        return Disconnected(number, "the connection has ended")
    return OSError(number, os.strerror(number), *([path] if path is not None else []))


def last_error(path: Optional[str] = None) -> Exception:
    """The exception of the errno that the last call left."""
    return error_of(ctypes.get_errno(), path)
