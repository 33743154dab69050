"""The CommLoop behind an event loop of asyncio, and what it calls.

There is one for each event loop that has members; it goes with the last of them. Its descriptor is
watched by the event loop, which calls dispatch when there is something to do. The functions that
the library calls back are made once, here, and never go; they find their member by a number. They
must not raise through the library: what they raise is kept, and told when the dispatch is over. No
code of an application runs within them but `allow` of a server.
"""
from __future__ import annotations

import asyncio
import ctypes
import itertools
import os
import threading
import weakref
from typing import Any, Callable, List, Optional, Set

from . import _library as lib
from .errors import last_error
from .peer import Peer


class Member:
    """A server or a connection of its own in the loop, with a handler of the library."""

    def __init__(self, hub: Hub, limits: lib.CommLoopLimits):
        self.hub, self._limits = hub, limits
        self._id = lib.CommLoopId()
        self._key = next(_keys)
        self.handler = lib.loop_handler_create(lib.CommLoopCallbacks(
            self._key, *_callbacks))
        if self.handler is None:
            raise MemoryError
        _members[self._key] = self
        hub.members.add(self)

    def add(self, endpoint: int) -> None:
        """Hands an open endpoint over; it stays the caller's when that fails."""
        self._id = lib.loop_add(self.hub.pointer, endpoint, self.handler, self._limits)
        if self._id.generation == 0:
            raise last_error()

    def connect(self, path: bytes) -> None:
        self._id = lib.loop_connect(self.hub.pointer, path, self.handler, self._limits)
        if self._id.generation == 0:
            raise last_error(os.fsdecode(path))

    def remove(self) -> None:
        """Not within a callback. Does nothing a second time."""
        if self not in self.hub.members:
            return
        if self.hub.pointer is not None:
            lib.loop_remove(self.hub.pointer, self._id)
            lib.loop_handler_destroy(self.handler)
        _members.pop(self._key, None)
        self.hub.members.discard(self)
        self.hub.close_if_unused()

    def on_connect(self, id: lib.CommLoopId, peer: Peer) -> bool:
        raise NotImplementedError

    def on_packet(self, id: lib.CommLoopId, packet: int) -> None:
        raise NotImplementedError

    def on_room(self, id: lib.CommLoopId) -> None:
        raise NotImplementedError

    def on_gone(self, id: lib.CommLoopId, why: int, error: int) -> None:
        raise NotImplementedError

    def on_accept_failed(self, error: int) -> None:
        raise NotImplementedError


class Hub:
    """Lives as long as the event loop watches it."""

    pointer: Optional[int] = None

    def __init__(self, loop: asyncio.AbstractEventLoop):
        self.members: Set[Member] = set()
        self.failures: List[BaseException] = []
        self.loop = loop
        self._thread = threading.get_ident()
        self.pointer = lib.loop_create()
        if self.pointer is None:
            raise last_error()
        self._fd = lib.loop_get_fd(self.pointer)
        loop.add_reader(self._fd, self._dispatch)
        _hubs[id(loop)] = self

    @staticmethod
    def running() -> Hub:
        loop = asyncio.get_running_loop()
        hub = _hubs.get(id(loop))
        return hub if hub is not None and hub.loop is loop and hub.pointer else Hub(loop)

    def check(self) -> None:
        """Another thread, and a forked child, would break what the library does."""
        if not self.is_here():
            raise RuntimeError("used outside the thread, or the process, of its event loop")

    def is_here(self) -> bool:
        """Whether this is the thread, and the process, of the event loop."""
        return threading.get_ident() == self._thread

    def leave_to_parent(self) -> None:
        """In a forked child."""
        self._thread = 0

    def close_if_unused(self) -> None:
        if self.members or self.pointer is None:
            return
        pointer, self.pointer = self.pointer, None
        _hubs.pop(id(self.loop), None)
        if not self.loop.is_closed():
            self.loop.remove_reader(self._fd)
        lib.loop_destroy(pointer)

    def _dispatch(self) -> None:
        if not self.is_here():
            return  # A forked child goes on with the event loop, and what comes is its parent's.
        if lib.loop_dispatch(self.pointer, 0) < 0:
            raise last_error()
        failures, self.failures = self.failures, []
        for failure in failures:
            if not isinstance(failure, Exception):
                raise failure  # Ctrl-C, or the end of the program.
            self.loop.call_exception_handler({
                "message": "what the loop of tarn_comm called has failed", "exception": failure})

    def __del__(self, destroy: Callable[[int], None] = lib.loop_destroy,
                destroy_handler: Callable[[int], None] = lib.loop_handler_destroy) -> None:
        """When the event loop was closed with members in it."""
        if self.pointer is None:
            return
        pointer, self.pointer = self.pointer, None
        destroy(pointer)
        for member in self.members:
            destroy_handler(member.handler)
        self.members.clear()


_keys = itertools.count(1)
_members: weakref.WeakValueDictionary[int, Member] = weakref.WeakValueDictionary()
_hubs: weakref.WeakValueDictionary[int, Hub] = weakref.WeakValueDictionary()


def _after_fork() -> None:
    for hub in list(_hubs.values()):
        hub.leave_to_parent()


os.register_at_fork(after_in_child=_after_fork)


def _call(key: int, call: Callable[[Member], Any], otherwise: int = 0) -> int:
    member = _members.get(key)
    if member is None:
        return otherwise
    try:
        return int(call(member) or 0)
    except BaseException as failure:
        member.hub.failures.append(failure)
        return otherwise


def _on_connect(key: int, loop: int, peer: lib.CommLoopId, who: Any) -> int:
    cred = who.contents
    return _call(key, lambda m: m.on_connect(peer, Peer(cred.pid, cred.uid, cred.gid)))


def _on_packet(key: int, loop: int, peer: lib.CommLoopId, packet: int) -> None:
    _call(key, lambda m: m.on_packet(peer, packet))


def _on_room(key: int, loop: int, peer: lib.CommLoopId) -> None:
    _call(key, lambda m: m.on_room(peer))


def _on_gone(key: int, loop: int, peer: lib.CommLoopId, why: int, error: int) -> None:
    _call(key, lambda m: m.on_gone(peer, why, error))


def _on_accept_failed(key: int, loop: int, server: lib.CommLoopId, error: int) -> None:
    _call(key, lambda m: m.on_accept_failed(error))


_callbacks = (lib.OnConnect(_on_connect), lib.OnPacket(_on_packet), lib.OnRoom(_on_room),
              lib.OnGone(_on_gone), lib.OnAcceptFailed(_on_accept_failed))
