"""Connections and servers for asyncio."""
from __future__ import annotations

import asyncio
import ctypes
import errno
import os
import select
import socket
from collections import deque
from dataclasses import dataclass
from types import TracebackType
from typing import (Any, AsyncIterator, Awaitable, Callable, Coroutine, Deque, Dict, Generator,
                    List, Optional, Set, Tuple, Type, Union,
                    cast)

from . import _library as lib
from ._hub import Hub, Member
from .client import Address, open_endpoint, set_up_endpoint, take_socket_over
from .errors import Disconnected, error_of, last_error
from .log import Log
from .packet import Argument, Packet, UInt64
from .peer import Peer

_RETRY_PAUSE = 0.01
# Of that many calls that have failed it is known that their answers are to be dropped.
_MOST_GIVEN_UP = 4096
_SENDS_IN_A_ROW = 16
_MOST_DROPPED = 64
# Why a connection has gone, as comm_loop.h has it.
_REASONS = ("peer_ended", "failed", "unsendable", "no_first", "idle", "not_finished",
            "disconnected", "finished")
_FAILURES = ("failed", "unsendable")


@dataclass
class Limits:
    """What a server, or a connection of its own, may use up. Change what does not fit. Times are in
    seconds; CommLoopLimits in comm_loop.h says what each means."""

    clients: int = 1024
    clients_per_user: int = 512
    accepts_per_turn: int = 16
    packets_per_turn: int = 16
    # With this much queued for a connection `send` waits until all of it has gone, and nothing is
    # read from it meanwhile.
    queued_packets: int = 64
    queued_bytes: int = 1048576
    # A packet that brings more is dropped. None are taken unless this says so.
    descriptors_per_packet: int = 0
    # None: no limit. What a client has sent in vain, since its coroutine took no packet, counts for
    # it.
    first_packet: Optional[float] = None
    idle: Optional[float] = None
    connect: Optional[float] = None
    finish: float = 5
    # So many packets of a connection may wait for a coroutine to take them; then it is not read. 1
    # means that it is read when its coroutine asks for a packet: so a peer that ends its sending,
    # and then reads its answers, gets all that were sent before the next packet was asked for. More
    # is faster where many packets come in a row.
    read_ahead: int = 1
    # So many may wait while a call waits for its answer; then the call fails with ENOBUFS.
    kept: int = lib.MAX_QUEUED_PACKETS

    def _for_library(self) -> lib.CommLoopLimits:
        limits = lib.CommLoopLimits()
        lib.loop_limits_init(limits)
        for name in ("clients", "clients_per_user", "accepts_per_turn", "packets_per_turn",
                     "queued_packets", "queued_bytes", "descriptors_per_packet"):
            number = getattr(self, name)
            if not 0 <= number < 1 << (64 if name == "queued_bytes" else 32):
                raise OverflowError(f"{name} is {number}")
            setattr(limits, name, number)
        for name in ("first_packet", "idle", "connect", "finish"):
            seconds = getattr(self, name)
            setattr(limits, name + "_us", 0 if seconds is None else _microseconds(seconds))
        return limits


def _microseconds(seconds: float) -> int:
    if not 0 <= seconds < 1e12:
        raise OverflowError(f"{seconds} seconds")
    return round(seconds * 1e6)


class Connection:
    """A client of a server, or the connection that connect() made.

        async for packet in connection:         until the peer has ended the connection
        packet = await connection.next()
        await connection.send(packet)           waits while too much is queued
        answer = await connection.call("greet", "world")

    Any number of tasks may use it, and each await may be cancelled: no packet is lost. For a time
    limit there is asyncio.wait_for. What has come can be taken when the connection has ended; then
    every call raises Disconnected. The iteration ends, or raises it when the connection has failed.
    `peer` says who is there.
    """

    peer: Peer

    def __init__(self, member: _Connections, id: lib.CommLoopId, peer: Peer):
        self.peer = peer
        self._member, self._hub, self._id = member, member.hub, id
        self._packets: Deque[Packet] = deque()
        self._takers: List[asyncio.Future[None]] = []
        self._senders: List[asyncio.Future[None]] = []
        self._awaited: Dict[int, asyncio.Future[Packet]] = {}
        self._given_up: Dict[int, None] = {}  # oldest first
        self._last_id = self._sends = self._drops_left = 0
        self._paused = self._hung_up = False
        self._poll: Optional[select.poll] = None
        self._end: Optional[Tuple[str, int]] = None  # why, and the errno
        self._gone: asyncio.Future[None] = self._hub.loop.create_future()

    # --- For the application ---

    async def send(self, packet: Packet) -> None:
        """Returns when the packet is on its way or queued. A packet with descriptors can be sent
        once. When the peer has gone before all of its packets were taken, what is sent is dropped
        without an error, so that the requests of a peer that sends and leaves are carried out: up
        to 64 packets before and behind each that is taken. After that Disconnected is raised."""
        if not isinstance(packet, Packet):
            raise TypeError(f"what is sent is a Packet, not {type(packet).__name__}")
        self._sends += 1
        if self._sends % _SENDS_IN_A_ROW == 0:
            await asyncio.sleep(0)  # Or a task that only sends would never hear of an end.
        while not self._drops():
            self._check()
            self._look_for_end()
            if lib.loop_send(self._hub.pointer, self._id, packet._handle) >= 0:
                return
            error = ctypes.get_errno()
            if error == errno.ENOENT:  # Its end has not been told yet.
                raise error_of(errno.ENOTCONN)
            if error != errno.EAGAIN:
                raise error_of(error)
            await self._wake_up(self._senders)

    async def next(self) -> Packet:
        """The oldest packet that was not taken, else the next that comes."""
        self._check_thread()
        while not self._packets:
            self._check()
            self._read()
            await self._wake_up(self._takers)
        if self._end is not None:
            self._drops_left = _MOST_DROPPED
        return self._packets.popleft()

    async def call(self, command: str, *args: Argument, **fields: Any) -> Packet:
        """Sends a request, made of what Packet takes, and waits for its answer: the first response
        with its message id. Further parts of an answer come from answer_to(answer.message_id). An
        answer that comes when its call was cancelled or has failed is dropped."""
        message_id = self.next_id()
        await self.send(Packet(command, *args, message_id=message_id, **fields))
        try:
            return await self.answer_to(message_id)
        except BaseException:
            self.give_up(message_id)
            raise

    async def answer_to(self, message_id: int) -> Packet:
        """Waits for a response with this message id; one at a time for each id."""
        self._check_thread()
        message_id = UInt64(message_id)
        for i, packet in enumerate(self._packets):
            if _is_answer(packet, message_id):
                del self._packets[i]
                return packet
        self._check()
        if message_id in self._awaited:
            raise RuntimeError(f"the answer to {message_id} is awaited already")
        future: asyncio.Future[Packet] = self._hub.loop.create_future()
        self._awaited[message_id] = future
        self._read()
        try:
            return await future
        except asyncio.CancelledError:
            if future.done() and not future.cancelled() and future.exception() is None:
                self._keep(future.result())  # It came in the moment of the cancellation.
            raise
        finally:
            if self._awaited.get(message_id) is future:
                del self._awaited[message_id]
            self._pause_if_enough()

    def give_up(self, message_id: int) -> None:
        """Responses with this message id are dropped, up to the last of a series."""
        self._check_thread()
        message_id = UInt64(message_id)
        if len(self._given_up) >= _MOST_GIVEN_UP:
            del self._given_up[next(iter(self._given_up))]
        self._given_up[message_id] = None
        self._packets = deque(p for p in self._packets if not self._is_too_late(p))

    def next_id(self) -> int:
        """A message id that no call and no next_id() had before; never 0."""
        self._last_id += 1
        return self._last_id

    @property
    def is_connected(self) -> bool:
        """Whether the end has not been met. While nobody takes packets or awaits an answer it may
        be met late: a connection is read when somebody asks."""
        return self._end is None

    async def close(self, grace: float = 1) -> None:
        """Sends what is queued, tells the peer that this is the end, and waits until the peer has
        ended as well, `grace` seconds at most: what it sends is dropped. Does nothing a second
        time."""
        self._check_thread()
        self._finish()
        try:
            await asyncio.wait({self._gone}, timeout=grace)
        finally:
            self.abort()

    def abort(self) -> None:
        """Ends the connection at once; what is queued is dropped."""
        self._check_thread()
        if not self._gone.done():
            self._tell(lib.loop_remove)
            self._on_gone(_REASONS.index("disconnected"), 0)

    def __aiter__(self) -> AsyncIterator[Packet]:
        return self

    async def __anext__(self) -> Packet:
        try:
            return await self.next()
        except Disconnected as end:
            if end.reason in _FAILURES:
                raise
            raise StopAsyncIteration from None

    def __repr__(self) -> str:
        state = "open" if self.is_connected else "ended"
        return f"<Connection with process {self.peer.pid} of user {self.peer.uid}, {state}>"

    # --- What the loop says ---

    def _on_packet(self, packet: Packet) -> None:
        if self._awaited or self._given_up:
            if not packet.is_request and packet.message_id in self._awaited:
                future = self._awaited.pop(packet.message_id)
                if not future.done():
                    future.set_result(packet)
                    return
            if self._is_too_late(packet):
                return
        self._keep(packet)
        self._pause_if_enough()

    def _on_room(self) -> None:
        _wake(self._senders)

    def _on_gone(self, why: int, error: int) -> None:
        """For the last time."""
        self._end = (_REASONS[why], error)
        self._drops_left = _MOST_DROPPED if self._packets else 0
        self._fail_awaited(self._ending())
        _wake(self._takers)
        _wake(self._senders)
        if not self._gone.done():
            self._gone.set_result(None)
        self._member.forget(self)

    # --- Beneath ---

    def _check_thread(self) -> None:
        self._hub.check()

    def _check(self) -> None:
        self._hub.check()
        if self._end is not None or self._hub.pointer is None:
            raise self._ending()

    def _tell(self, function: Callable[..., Any]) -> None:
        """Tells the loop, unless it has gone, with the event loop, before its connections, or is
        that of the parent, whose coroutines end in a forked child, too."""
        if self._hub.pointer is not None and self._hub.is_here():
            function(self._hub.pointer, self._id)

    def _ending(self) -> Exception:
        """A new one each time: an exception gathers the tracebacks of all who raise it."""
        reason, error = self._end or ("disconnected", 0)
        ending = Disconnected(error or errno.ENOTCONN, f"the connection has gone: {reason}")
        ending.reason = reason
        return ending

    def _drops(self) -> bool:
        """Whether a packet is dropped in silence, as send() says."""
        if self._end != ("peer_ended", 0) or self._drops_left == 0:
            return False
        self._drops_left -= 1
        return True

    def _look_for_end(self) -> None:
        """The loop does not look at a paused connection, and a coroutine that only sends does not
        read. Of a peer that has hung up no more is left than fits into a socket: all is read."""
        if self._paused and not self._hung_up:
            if self._poll is None:
                self._poll = select.poll()
                self._poll.register(self._fileno(), 0)
            self._hung_up = bool(self._poll.poll(0))
            if self._hung_up:
                self._read()

    def _fileno(self) -> int:
        client = lib.loop_get_client(self._hub.pointer, self._id)
        if client is not None:
            return cast(int, lib.client_get_client_fd(client))
        return cast(int, lib.get_socket_fd(lib.loop_get_endpoint(self._hub.pointer, self._id)))

    async def _wake_up(self, waiters: List[asyncio.Future[None]]) -> None:
        waiter: asyncio.Future[None] = self._hub.loop.create_future()
        waiters.append(waiter)
        try:
            await waiter
        finally:
            waiters.remove(waiter)

    def _keep(self, packet: Packet) -> None:
        self._packets.append(packet)
        _wake(self._takers)

    def _read(self) -> None:
        if self._paused and self._end is None:
            self._paused = False
            self._tell(lib.loop_resume)

    def _pause_if_enough(self) -> None:
        if len(self._packets) >= self._member.kept:
            self._fail_awaited(error_of(errno.ENOBUFS))
        most = self._member.kept if self._awaited else self._member.read_ahead
        if self._paused or self._hung_up or self._end is not None:
            return
        if len(self._packets) >= most:
            self._paused = True
            self._tell(lib.loop_pause)

    def _fail_awaited(self, error: Exception) -> None:
        awaited, self._awaited = self._awaited, {}
        for future in awaited.values():
            if not future.done():
                future.set_exception(error)

    def _is_too_late(self, packet: Packet) -> bool:
        if packet.is_request or packet.message_id not in self._given_up:
            return False
        if packet.is_last:
            del self._given_up[packet.message_id]
        return True

    def _finish(self) -> None:
        """Begins the end. Nothing is taken or sent any more."""
        if self._end is None:
            self._end = ("disconnected", 0)
            self._packets.clear()
            self._fail_awaited(self._ending())
            _wake(self._takers)
            _wake(self._senders)
            self._tell(lib.loop_finish)


def _is_answer(packet: Packet, message_id: int) -> bool:
    return not packet.is_request and packet.message_id == message_id


def _wake(waiters: List[asyncio.Future[None]]) -> None:
    for waiter in waiters:
        if not waiter.done():
            waiter.set_result(None)


class _Connections(Member):
    """A member of the loop with connections: a server with many, or one by itself."""

    def __init__(self, limits: Limits):
        super().__init__(Hub.running(), limits._for_library())
        self.read_ahead, self.kept = max(limits.read_ahead, 1), max(limits.kept, 1)
        self.connections: Dict[int, Connection] = {}

    def forget(self, connection: Connection) -> None:
        self.connections.pop(connection._id.generation, None)

    def on_packet(self, id: lib.CommLoopId, packet: int) -> None:
        connection = self.connections.get(id.generation)
        if connection is not None:
            lib.packet_addref(packet)
            connection._on_packet(Packet._of(lib.Handle(packet)))

    def on_room(self, id: lib.CommLoopId) -> None:
        connection = self.connections.get(id.generation)
        if connection is not None:
            connection._on_room()

    def on_gone(self, id: lib.CommLoopId, why: int, error: int) -> None:
        connection = self.connections.get(id.generation)
        if connection is not None:
            connection._on_gone(why, error)


# --- A connection of its own ---------------------------------------------------------------------


class _Outgoing(_Connections):
    def __init__(self, limits: Limits):
        super().__init__(limits)
        self.opened: asyncio.Future[Connection] = self.hub.loop.create_future()

    async def open(self, address: Address, log: Log) -> Connection:
        if isinstance(address, socket.socket):
            endpoint = open_endpoint(log)
            try:
                take_socket_over(endpoint, address)
                self.add(endpoint)
            except BaseException:
                lib.destroy(endpoint)
                raise
        else:
            self.connect(_path_of(address))
            set_up_endpoint(lib.loop_get_endpoint(self.hub.pointer, self._id), log)
        return await self.opened

    def on_connect(self, id: lib.CommLoopId, peer: Peer) -> bool:
        if self.opened.done():
            return False
        self.connections[id.generation] = connection = Connection(self, id, peer)
        self.opened.set_result(connection)
        return True

    def on_gone(self, id: lib.CommLoopId, why: int, error: int) -> None:
        if not self.opened.done():
            self.opened.set_exception(error_of(error or errno.ENOTCONN))
        super().on_gone(id, why, error)

    def forget(self, connection: Connection) -> None:
        super().forget(connection)
        if not self.hub.loop.is_closed():
            self.hub.loop.call_soon(self.remove)  # Not within the callback that tells the end.


class _Connecting:
    """What connect() returns: to be awaited, or for `async with`, which closes in the end."""

    def __init__(self, open_it: Callable[[], Coroutine[Any, Any, Connection]]):
        self._open = open_it

    def __await__(self) -> Generator[Any, None, Connection]:
        return self._open().__await__()

    async def __aenter__(self) -> Connection:
        self._connection = await self._open()
        return self._connection

    async def __aexit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        if kind is None:
            await self._connection.close()
        else:
            self._connection.abort()


def connect(address: Address, *, limits: Optional[Limits] = None, wait_for_server: bool = False,
            log: Log = "normal") -> _Connecting:
    """Connects to a server, or takes a connected socket over.

        connection = await connect(path)
        async with connect(path) as connection: ...

    With `wait_for_server` it tries until a server is there. Nothing blocks, a server whose queue is
    full included."""

    async def open_it() -> Connection:
        while True:
            outgoing = _Outgoing(limits or Limits())
            try:
                return await outgoing.open(address, log)
            except (FileNotFoundError, ConnectionRefusedError):
                outgoing.remove()
                if not wait_for_server:
                    raise
            except BaseException:
                outgoing.remove()
                raise
            await asyncio.sleep(_RETRY_PAUSE)

    return _Connecting(open_it)


def _path_of(address: Union[str, bytes, os.PathLike[str]]) -> bytes:
    path = os.fsencode(address)
    if b"\0" in path:
        raise ValueError("a path with a NUL in it")
    return path


# --- Server --------------------------------------------------------------------------------------

OnClient = Callable[[Connection], Awaitable[None]]


class Server:
    """Listens at an address while its block runs, with a task of `on_client` for each client.

        async with Server(path, on_client, limits=Limits(idle=600)) as server:
            await server.wait()

    A client ends with its coroutine: it gets what is queued, and the end. What the coroutine raises
    ends this client at once, and goes to the exception handler of the event loop; Disconnected does
    not, when the client has gone. The end of the client does not cancel the coroutine: its next
    await on the client raises, or ends the iteration.

    address                 a path, a name, or a local socket of the type SOCK_SEQPACKET that
                            listens already, such as one that a service manager passed: it is
                            taken over, with its mode, group and backlog; its file is left alone
    mode, group, backlog    as comm_socket_v4_set_socket_mode and so on have it
    allow                   is asked about each peer, within the accept: False turns it away
    log                     "normal", "debug", "quiet" or a logging.Logger

    Whoever reaches the path may connect, unless `mode`, `group` or `allow` say otherwise. The
    opening may wait for two seconds, for another that opens in the same directory.
    """

    def __init__(self, address: Address, on_client: OnClient, *, limits: Optional[Limits] = None,
                 mode: int = 0o666, group: Optional[int] = None, backlog: int = 0,
                 allow: Optional[Callable[[Peer], bool]] = None, log: Log = "normal"):
        self._address: Union[socket.socket, bytes] = (
            address if isinstance(address, socket.socket) else _path_of(address))
        self._on_client, self._allow = on_client, allow
        self._limits = limits or Limits()
        self._mode, self._group, self._backlog, self._log = mode, group, backlog, log
        self._member: Optional[_Listening] = None

    async def __aenter__(self) -> Server:
        if self._member is not None:
            raise RuntimeError("a server is entered once")
        member = _Listening(self._limits, self._on_client, self._allow)
        endpoint = None
        try:
            endpoint = open_endpoint(self._log)
            self._listen(endpoint)
            member.add(endpoint)
        except BaseException:
            lib.destroy(endpoint)
            member.remove()
            raise
        self._member = member
        return self

    def _listen(self, endpoint: int) -> None:
        if isinstance(self._address, socket.socket):
            if lib.use_server_socket(endpoint, self._address.fileno()) != 0:
                raise last_error()
            self._address.detach()
            return
        lib.set_socket_mode(endpoint, lib.as_unsigned(self._mode))
        if self._group is not None:
            lib.set_socket_group(endpoint, lib.as_unsigned(self._group))
        lib.set_listen_backlog(endpoint, lib.as_int(self._backlog))
        if lib.create_server(endpoint, self._address) != 0:
            raise last_error(os.fsdecode(self._address))

    async def __aexit__(self, kind: Optional[Type[BaseException]], value: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        await self.close()

    async def wait(self) -> None:
        """Waits until the server is closed; raises OSError when it can accept nobody any more. Its
        clients are served on then."""
        await asyncio.shield(self._listening().over)

    async def close(self, grace: float = 1) -> None:
        """Ends the listening, cancels the coroutines, and gives clients `grace` seconds to take
        what is queued for them and to end. A coroutine that goes on in spite of its cancellation is
        waited for."""
        if self._member is not None:
            await self._member.close(grace)

    @property
    def clients(self) -> List[Connection]:
        """The connections that there are now, those that are ending included."""
        return list(self._listening().connections.values())

    def counters(self) -> Dict[str, int]:
        """What happened so far, by the names of CommLoopCounters in comm_loop.h; the connections
        that have gone, by reason, under "gone_idle" and so on."""
        member = self._listening()
        member.hub.check()
        counters = lib.CommLoopCounters()
        if lib.loop_get_counters(member.hub.pointer, member._id, counters) != 0:
            raise last_error()
        found = {name: getattr(counters, name) for name, *_ in lib.CommLoopCounters._fields_
                 if name not in ("gone", "reserved")}
        return {**found, **{f"gone_{reason}": counters.gone[i]
                            for i, reason in enumerate(_REASONS)}}

    def _listening(self) -> _Listening:
        if self._member is None or self._member not in self._member.hub.members:
            raise error_of(errno.ENOTCONN)
        return self._member


class _Listening(_Connections):
    def __init__(self, limits: Limits, on_client: OnClient,
                 allow: Optional[Callable[[Peer], bool]]):
        super().__init__(limits)
        self._on_client, self._allow = on_client, allow
        self._tasks: Set[asyncio.Task[None]] = set()
        self.over: asyncio.Future[None] = self.hub.loop.create_future()

    def on_connect(self, id: lib.CommLoopId, peer: Peer) -> bool:
        if self._allow is not None and not self._allow(peer):
            return False
        connection = Connection(self, id, peer)
        task = self.hub.loop.create_task(self._attend(connection))
        self.connections[id.generation] = connection
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)
        return True

    def on_accept_failed(self, error: int) -> None:
        if not self.over.done():
            self.over.set_exception(error_of(error))
            self.over.exception()  # Where nobody waits nothing is to be logged later.

    async def _attend(self, connection: Connection) -> None:
        try:
            await self._on_client(connection)
        except Disconnected as error:
            if connection.is_connected:
                self._report(connection, error)
        except Exception as error:
            self._report(connection, error)
        finally:
            if not connection._gone.done():
                connection._finish()

    def _report(self, connection: Connection, error: Exception) -> None:
        self.hub.loop.call_exception_handler({
            "message": f"the coroutine of {connection!r} failed", "exception": error})
        connection.abort()

    async def close(self, grace: float) -> None:
        self.hub.check()
        if self not in self.hub.members:
            return
        lib.loop_stop_listening(self.hub.pointer, self._id)
        # A coroutine of a client may close, too.
        tasks = {task for task in self._tasks if task is not asyncio.current_task()}
        for task in tasks:
            task.cancel()
        try:
            if tasks:
                await asyncio.wait(tasks)
            gone = {connection._gone for connection in self.connections.values()}
            if gone:
                await asyncio.wait(gone, timeout=grace)
        finally:
            for connection in list(self.connections.values()):
                connection.abort()
            if not self.over.done():
                self.over.set_result(None)
            self.remove()


async def serve(address: Address, on_client: OnClient, *, limits: Optional[Limits] = None,
                mode: int = 0o666, group: Optional[int] = None, backlog: int = 0,
                allow: Optional[Callable[[Peer], bool]] = None, log: Log = "normal") -> None:
    """Serves until it is cancelled: a Server, with all that it takes, and its wait()."""
    async with Server(address, on_client, limits=limits, mode=mode, group=group, backlog=backlog,
                      allow=allow, log=log) as server:
        await server.wait()
