"""A client that waits for its answers."""
from __future__ import annotations

import ctypes
import errno
import os
import select
import socket
import threading
import time
import warnings
from types import TracebackType
from typing import Any, Callable, Iterator, NoReturn, Optional, Type, Union

from . import _library as lib
from .errors import Disconnected, error_of, last_error
from .log import Log, set_log
from .packet import Argument, Packet, UInt64
from .peer import Peer

Address = Union[str, bytes, "os.PathLike[str]", socket.socket]

# What a call of the library gets to read what has come; it looks at its clock between two packets.
_SLICE_US = 1000
_RETRY_PAUSE = 0.01
_LONGEST_POLL_MS = 1 << 30
_DEFAULT: Any = object()  # that of the client


def set_up_endpoint(endpoint: int, log: Log) -> None:
    """Sets the log. What is received is not inherited by programs that are started, as with
    every descriptor of Python."""
    set_log(endpoint, log)
    lib.set_descriptors_cloexec(endpoint, 1)


def open_endpoint(log: Log) -> int:
    endpoint: Optional[int] = lib.create()
    if endpoint is None:
        raise MemoryError
    try:
        set_up_endpoint(endpoint, log)
    except BaseException:
        lib.destroy(endpoint)
        raise
    return endpoint


def take_socket_over(endpoint: int, connected: socket.socket) -> None:
    """Opens an endpoint on a socket of Python, which is closed from then on."""
    kind = connected.getsockopt(socket.SOL_SOCKET, socket.SO_TYPE)
    if connected.family != socket.AF_UNIX or kind != socket.SOCK_SEQPACKET:
        raise OSError(errno.EINVAL, "not a local socket of the type SOCK_SEQPACKET")
    connected.getpeername()  # OSError for one without a peer.
    connected.setblocking(False)
    if lib.connect_use_socketpair(endpoint, connected.fileno()) != 0:
        raise OSError(errno.EINVAL, "cannot take the socket over")
    connected.detach()


class Client:
    """A connection to the server at an address, made by the constructor.

    Each call takes `timeout` seconds at most, which is that of the constructor unless it is given,
    and raises TimeoutError then; 0 looks once. A signal handler runs while a call waits, and what
    it raises ends the call: Ctrl-C works. (The waiting is done here, by poll; a wait inside the
    library would not come back for a signal. The library is called when there is something to do.)

    What comes while a call waits for something else is kept, in order, for next(): `keep` packets
    at most, then the calls fail with ENOBUFS until next() has taken some. With 0 send() waits
    without reading.

    When the server has ended the connection a call raises Disconnected, or what the receive failed
    with. What was kept can be had from next() all the same. A send that fails with EPIPE or
    ECONNRESET closes nothing: what the server sent before can still be read.

    close() with packets of the server unread may take back what was sent last; end with a call
    where that matters. A client that nobody refers to any more is closed, with a ResourceWarning.
    """

    def __init__(self, address: Address, *, timeout: Optional[float] = 5,
                 wait_for_server: bool = False, keep: int = lib.MAX_QUEUED_PACKETS,
                 max_descriptors: int = lib.MAX_SEND_FDS, log: Log = "normal"):
        """With `wait_for_server` it tries until a server is there. A packet that brings more than
        `max_descriptors` is dropped."""
        self._pointer: Optional[int] = None
        self._in_use = threading.Lock()
        self._sending = select.POLLOUT | (select.POLLIN if keep > 0 else 0)
        self.timeout = timeout
        endpoint = open_endpoint(log)
        try:
            keep = lib.as_unsigned(keep, 64)
            if lib.set_max_descriptors(endpoint, lib.as_unsigned(max_descriptors)) != 0:
                raise last_error()
            if isinstance(address, socket.socket):
                take_socket_over(endpoint, address)
            self._pointer = lib.blocking_create(endpoint)
            if self._pointer is None:
                raise MemoryError
        except BaseException:
            lib.destroy(endpoint)
            raise
        lib.blocking_keep_at_most(self._pointer, keep)
        if not isinstance(address, socket.socket):
            try:
                self._connect(os.fsencode(address), wait_for_server)
            except BaseException:
                self.close()
                raise

    def _connect(self, path: bytes, wait_for_server: bool) -> None:
        """A look at a time, as the library does it: the pause in between may be interrupted."""
        if b"\0" in path:
            raise ValueError("a path with a NUL in it")
        deadline = _Deadline(self.timeout)
        while lib.blocking_connect(self._pointer, path, 0, 0) != 0:
            error = ctypes.get_errno()
            is_missing = error in (errno.ENOENT, errno.ECONNREFUSED)
            if error != errno.ETIMEDOUT and not (is_missing and wait_for_server):
                raise error_of(error, os.fsdecode(path))
            left = deadline.left()
            if left == 0:
                raise error_of(errno.ETIMEDOUT, os.fsdecode(path))
            time.sleep(_RETRY_PAUSE if left is None else min(left, _RETRY_PAUSE))

    def send(self, packet: Packet, timeout: Optional[float] = _DEFAULT) -> None:
        """Sends a packet. While the socket takes no more what the server sends is read and kept, so
        that two who send to each other do not wait for ever. A packet that was received and is sent
        on costs a warning in the log."""
        with self._using():
            self._send(self._client, packet, self._deadline(timeout))

    def next(self, timeout: Optional[float] = _DEFAULT) -> Packet:
        """The oldest packet that was kept, else the next that comes."""
        with self._using():
            client = self._client
            return self._receive(client, self._deadline(timeout), lib.blocking_next, client, 0)

    def call(self, command: str, *args: Argument, timeout: Optional[float] = _DEFAULT,
             **fields: Any) -> Packet:
        """Sends a request, made of what Packet takes, and waits for its answer: the first response
        with its message id. Further parts of an answer come from answer_to(answer.message_id). An
        answer that comes when its call has failed is dropped; the request may have been carried
        out all the same."""
        with self._using():
            client = self._client
            deadline = self._deadline(timeout)
            message_id = lib.blocking_next_id(client)
            request = Packet(command, *args, message_id=message_id, **fields)
            self._send(client, request, deadline)
            try:
                return self._answer_to(client, message_id, deadline)
            except BaseException:
                lib.blocking_give_up(client, message_id)
                raise

    def answer_to(self, message_id: int, timeout: Optional[float] = _DEFAULT) -> Packet:
        """Waits for a response with this message id, and looks at what was kept first. For further
        parts, and for packets that were sent with an id of next_id()."""
        with self._using():
            return self._answer_to(self._client, UInt64(message_id), self._deadline(timeout))

    def give_up(self, message_id: int) -> None:
        """Responses with this message id are dropped from now on, up to the last of a series."""
        with self._using():
            lib.blocking_give_up(self._client, UInt64(message_id))

    def next_id(self) -> int:
        """A message id that no call and no next_id() had before; never 0."""
        with self._using():
            return lib.blocking_next_id(self._client)  # type: ignore[no-any-return]

    def fileno(self) -> int:
        """The socket, to wait for; it stays the client's. What was kept does not make it
        readable."""
        with self._using():
            return self._fileno(self._client)

    @property
    def is_connected(self) -> bool:
        """Whether there is a connection whose end has not been read."""
        if self._pointer is None:
            return False
        with self._using():
            return bool(lib.blocking_is_connected(self._client))

    @property
    def peer(self) -> Peer:
        """Who listens there, or made the pair."""
        with self._using():
            who = lib.Ucred()
            if lib.get_server_cred(lib.blocking_get_endpoint(self._client), who) != 0:
                raise last_error()
            return Peer(who.pid, who.uid, who.gid)

    def close(self) -> None:
        """Does nothing a second time."""
        if self._pointer is None:
            return
        with self._using():
            pointer, self._pointer = self._pointer, None
            if pointer is not None:
                lib.blocking_destroy(pointer)

    def __enter__(self) -> Client:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def __iter__(self) -> Iterator[Packet]:
        """Packets, each within the client's timeout, until the server has ended the connection."""
        while True:
            try:
                packet = self.next()
            except Disconnected:
                return
            yield packet

    def __del__(self, destroy: Callable[[int], None] = lib.blocking_destroy) -> None:
        pointer = getattr(self, "_pointer", None)
        if pointer is not None:
            destroy(pointer)
            warnings.warn("unclosed tarn_comm.Client", ResourceWarning, source=self)

    def __reduce__(self) -> NoReturn:
        raise TypeError("a Client is not copied or pickled")

    def _using(self) -> threading.Lock:
        """For `with`, at once: what a signal handler raises never leaves the lock taken, as it
        might do in an acquire() or __enter__ of Python. Two threads that both find it free take
        turns."""
        if self._in_use.locked():
            raise RuntimeError("another thread, or the one that was interrupted, uses this client")
        return self._in_use

    @property
    def _client(self) -> int:
        if self._pointer is None:
            raise error_of(errno.ENOTCONN)
        return self._pointer

    def _deadline(self, timeout: Optional[float]) -> _Deadline:
        return _Deadline(self.timeout if timeout is _DEFAULT else timeout)

    @staticmethod
    def _fileno(client: int) -> int:
        fd: int = lib.get_socket_fd(lib.blocking_get_endpoint(client))
        if fd < 0:
            raise error_of(errno.ENOTCONN)
        return fd

    def _wait(self, client: int, events: int, deadline: _Deadline) -> None:
        poll = select.poll()
        poll.register(self._fileno(client), events)
        while True:
            left = deadline.left()
            if left == 0:
                raise error_of(errno.ETIMEDOUT)
            if poll.poll(None if left is None else int(min(left * 1000, _LONGEST_POLL_MS)) + 1):
                return

    def _send(self, client: int, packet: Packet, deadline: _Deadline) -> None:
        if not isinstance(packet, Packet):
            raise TypeError(f"what is sent is a Packet, not {type(packet).__name__}")
        slice_us = 0
        while lib.blocking_send(client, packet._handle, slice_us) != 0:
            if ctypes.get_errno() != errno.ETIMEDOUT:
                raise last_error()
            self._wait(client, self._sending, deadline)
            slice_us = _SLICE_US  # It reads what has come, to which 0 would give no time.

    def _answer_to(self, client: int, message_id: int, deadline: _Deadline) -> Packet:
        return self._receive(client, deadline, lib.blocking_answer_to, client, message_id, 0)

    def _receive(self, client: int, deadline: _Deadline, look: Callable[..., Any],
                 *arguments: int) -> Packet:
        while True:
            handle: lib.Handle = look(*arguments)
            if handle:
                return Packet._of(handle)
            if ctypes.get_errno() != errno.ETIMEDOUT:
                raise last_error()
            self._wait(client, select.POLLIN, deadline)


class _Deadline:
    def __init__(self, timeout: Optional[float]):
        self._at = None if timeout is None else time.monotonic() + timeout

    def left(self) -> Optional[float]:
        """Seconds, 0 when the time is over, None for ever."""
        return None if self._at is None else max(0.0, self._at - time.monotonic())
