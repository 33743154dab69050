"""The functions of the shared library, as ctypes calls them.

Each is declared once, with its types: without them ctypes would cut pointers to 32 bits. A test
compares them with the headers. Handles and texts that the library returns are addresses, since
ctypes copies what it takes for a text.
"""
from __future__ import annotations

import ctypes
import operator
from ctypes import (POINTER, Structure, c_char_p, c_double, c_int, c_int64, c_size_t,
                    c_uint, c_uint8, c_uint16, c_uint32, c_uint64, c_ulong, c_void_p)
from typing import Any, Callable, List, NoReturn, SupportsIndex

# use_errno: the errno of a call is kept for ctypes.get_errno, whatever Python does meanwhile.
_LIBRARY = ctypes.CDLL("libtarn_utils_v4_comm.so.1", use_errno=True)

# The limits of comm_packet.h.
MAX_ARGUMENTS = 255
MAX_PAIRS = 4095
MAX_COMMAND = 255
MAX_ERROR_STRING = 4095
MAX_NAME = 4095
MAX_TEXT = 65535
MAX_DATA_PER_WRITE = 262144
MAX_ATTACHED_FDS = 8
MAX_SEND_FDS = 60
MIN_RECEIVED_PACKET = 64
MAX_RECEIVED_PACKET = 65551
MAX_QUEUED_PACKETS = 4096  # of comm.h

TEXT, BINARY, UINT64, DOUBLE, JSON, INT64 = range(6)
FLAG_REQUEST = 1
FLAG_ASYNC = 2
MULTIPART_SHIFT = 2
MULTIPART_MASK = 12


class Ucred(Structure):
    _fields_ = [("pid", c_int), ("uid", c_uint), ("gid", c_uint)]


class PacketArgv(Structure):
    _fields_ = [("value_offset", c_uint8 * 3), ("type_code", c_uint8)]


class PacketNvPair(Structure):
    _fields_ = [("name_offset", c_uint32), ("value_offset", c_uint32), ("value_length", c_uint32),
                ("type_code", c_uint32)]


class CommLoopId(Structure):
    _fields_ = [("slot", c_uint64), ("generation", c_uint64)]


class CommLoopLimits(Structure):
    _fields_ = [("clients", c_uint32), ("clients_per_user", c_uint32),
                ("accepts_per_turn", c_uint32), ("packets_per_turn", c_uint32),
                ("queued_packets", c_uint32), ("queued_bytes", c_uint64),
                ("descriptors_per_packet", c_uint32), ("first_packet_us", c_uint64),
                ("idle_us", c_uint64), ("connect_us", c_uint64), ("finish_us", c_uint64),
                ("reserved", c_uint64 * 4)]


def as_int(number: SupportsIndex) -> int:
    """A number that fits into an int: ctypes would cut it to one in silence."""
    fitting = operator.index(number)
    if not -1 << 31 <= fitting < 1 << 31:
        raise OverflowError(f"{fitting} is no int")
    return fitting


def as_unsigned(number: SupportsIndex, bits: int = 32) -> int:
    fitting = operator.index(number)
    if not 0 <= fitting < 1 << bits:
        raise OverflowError(f"{fitting} is no uint{bits}")
    return fitting


def _numbers(*names: str) -> List[Any]:
    return [(name, c_uint64) for name in names]


class CommLoopCounters(Structure):
    _fields_ = (
        _numbers("accepted", "turned_away_full", "turned_away_user", "turned_away_handler",
                 "turned_away_failed", "accepts_put_off") + [("gone", c_uint64 * 8)] +
        _numbers("packets_received", "bytes_received", "packets_dropped", "packets_sent",
                 "bytes_sent", "packets_unsent", "sends_refused", "connections", "queued_packets",
                 "queued_bytes") + [("reserved", c_uint64 * 8)])


LogSink = ctypes.CFUNCTYPE(None, c_size_t, c_char_p, c_char_p)
OnConnect = ctypes.CFUNCTYPE(c_int, c_void_p, c_void_p, CommLoopId, POINTER(Ucred))
OnPacket = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, CommLoopId, c_void_p)
OnRoom = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, CommLoopId)
OnGone = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, CommLoopId, c_uint32, c_int)
OnAcceptFailed = ctypes.CFUNCTYPE(None, c_void_p, c_void_p, CommLoopId, c_int)


class CommLoopCallbacks(Structure):
    _fields_ = [("user", c_void_p), ("on_connect", OnConnect), ("on_packet", OnPacket),
                ("on_room", OnRoom), ("on_gone", OnGone), ("on_accept_failed", OnAcceptFailed),
                ("on_ready", c_void_p), ("on_time", c_void_p), ("reserved", c_void_p * 4)]


def _function(name: str, result: Any, *arguments: Any) -> Callable[..., Any]:
    function = getattr(_LIBRARY, "comm_socket_v4_" + name)
    function.restype, function.argtypes = result, arguments
    return function  # type: ignore[no-any-return]


create = _function("create", c_void_p)
destroy = _function("destroy", c_int, c_void_p)
get_socket_fd = _function("get_socket_fd", c_int, c_void_p)
normal_logging = _function("normal_logging", None, c_void_p)
debug_logging = _function("debug_logging", None, c_void_p)
shut_up = _function("shut_up", None, c_void_p)
use_server_socket = _function("use_server_socket", c_int, c_void_p, c_int)
set_log_sink = _function("set_log_sink", None, c_void_p, c_void_p, c_void_p)
create_server = _function("create_server", c_int, c_void_p, c_char_p)
set_socket_mode = _function("set_socket_mode", None, c_void_p, c_uint)
set_socket_group = _function("set_socket_group", None, c_void_p, c_uint)
set_listen_backlog = _function("set_listen_backlog", None, c_void_p, c_int)
connect_use_socketpair = _function("connect_use_socketpair", c_int, c_void_p, c_int)
client_get_client_fd = _function("client_get_client_fd", c_int, c_void_p)
get_server_cred = _function("get_server_cred", c_int, c_void_p, POINTER(Ucred))
set_descriptors_cloexec = _function("set_descriptors_cloexec", None, c_void_p, c_int)
set_max_descriptors = _function("set_max_descriptors", c_int, c_void_p, c_uint)
client_on_recv_packet = _function("client_on_recv_packet", c_int, c_void_p, c_void_p)

packet_addref = _function("packet_addref", None, c_void_p)
packet_release = _function("packet_release", c_void_p, c_void_p)


class Handle(c_void_p):
    """Exactly one reference to a packet, or null. Whatever points into the packet holds it. It is
    what the functions return: what a signal handler raises behind them loses no packet."""

    def __del__(self, release: Callable[..., Any] = packet_release) -> None:
        release(self)

    def __reduce__(self) -> NoReturn:
        raise TypeError("a packet is not copied or pickled; bytes(packet) and from_bytes() are")


packet_create = _function("packet_create", Handle)
packet_get_flags = _function("packet_get_flags", c_uint32, c_void_p)
packet_set_flags = _function("packet_set_flags", None, c_void_p, c_uint32)
packet_get_stream_id = _function("packet_get_stream_id", c_uint64, c_void_p)
packet_set_stream_id = _function("packet_set_stream_id", None, c_void_p, c_uint64)
packet_get_message_id = _function("packet_get_message_id", c_uint64, c_void_p)
packet_set_message_id = _function("packet_set_message_id", None, c_void_p, c_uint64)
packet_get_error_code = _function("packet_get_error_code", c_uint64, c_void_p)
packet_set_error_code = _function("packet_set_error_code", None, c_void_p, c_uint64)
packet_get_buffer = _function("packet_get_buffer", c_void_p, c_void_p, POINTER(c_size_t))
packet_set_buffer = _function("packet_set_buffer", c_int, c_void_p, c_char_p, c_size_t)
packet_attach_fd_to_send_cloexec = _function("packet_attach_fd_to_send_cloexec", c_int, c_void_p,
                                             c_int)
packet_attached_fd_count = _function("packet_attached_fd_count", c_size_t, c_void_p)
packet_get_attached_fd = _function("packet_get_attached_fd", c_int, c_void_p, c_size_t)
packet_begin_writing = _function("packet_begin_writing", c_int, c_void_p, c_size_t, c_char_p,
                                 c_char_p)
packet_write_argv = _function("packet_write_argv", c_int, c_void_p, c_char_p)
packet_write_argv_uint64 = _function("packet_write_argv_uint64", c_int, c_void_p, c_uint64)
packet_write_argv_int64 = _function("packet_write_argv_int64", c_int, c_void_p, c_int64)
packet_write_argv_double = _function("packet_write_argv_double", c_int, c_void_p, c_double)
packet_write_nv_pair_raw = _function("packet_write_nv_pair_raw", c_int, c_void_p, c_char_p,
                                     c_char_p, c_size_t, c_uint32)
packet_write_data_binary = _function("packet_write_data_binary", c_int, c_void_p, c_char_p,
                                     c_size_t)
packet_write_end = _function("packet_write_end", c_int, c_void_p)
packet_get_command = _function("packet_get_command", c_char_p, c_void_p)
packet_get_error_string = _function("packet_get_error_string", c_char_p, c_void_p)
packet_get_argc = _function("packet_get_argc", c_size_t, c_void_p)
packet_get_argv = _function("packet_get_argv", c_char_p, c_void_p, c_size_t)
packet_get_argv_uint64 = _function("packet_get_argv_uint64", c_uint64, c_void_p, c_size_t)
packet_get_argv_int64 = _function("packet_get_argv_int64", c_int64, c_void_p, c_size_t)
packet_get_argv_double = _function("packet_get_argv_double", c_double, c_void_p, c_size_t)
packet_get_argv_entry = _function("packet_get_argv_entry", POINTER(PacketArgv), c_void_p, c_size_t)
packet_nv_entries = _function("packet_nv_entries", c_size_t, c_void_p)
packet_get_nv_entry = _function("packet_get_nv_entry", POINTER(PacketNvPair), c_void_p, c_size_t)
packet_get_data = _function("packet_get_data", c_void_p, c_void_p, POINTER(c_size_t))

blocking_create = _function("blocking_create", c_void_p, c_void_p)
blocking_destroy = _function("blocking_destroy", None, c_void_p)
blocking_connect = _function("blocking_connect", c_int, c_void_p, c_char_p, c_uint64, c_int)
blocking_is_connected = _function("blocking_is_connected", c_int, c_void_p)
blocking_get_endpoint = _function("blocking_get_endpoint", c_void_p, c_void_p)
blocking_send = _function("blocking_send", c_int, c_void_p, c_void_p, c_uint64)
blocking_answer_to = _function("blocking_answer_to", Handle, c_void_p, c_uint64, c_uint64)
blocking_give_up = _function("blocking_give_up", None, c_void_p, c_uint64)
blocking_next = _function("blocking_next", Handle, c_void_p, c_uint64)
blocking_next_id = _function("blocking_next_id", c_uint64, c_void_p)
blocking_keep_at_most = _function("blocking_keep_at_most", None, c_void_p, c_size_t)

loop_handler_create = _function("loop_handler_create", c_void_p, POINTER(CommLoopCallbacks))
loop_handler_destroy = _function("loop_handler_destroy", None, c_void_p)
loop_limits_init = _function("loop_limits_init", None, POINTER(CommLoopLimits))
loop_create = _function("loop_create", c_void_p)
loop_destroy = _function("loop_destroy", None, c_void_p)
loop_get_fd = _function("loop_get_fd", c_int, c_void_p)
loop_dispatch = _function("loop_dispatch", c_int, c_void_p, c_ulong)
loop_add = _function("loop_add", CommLoopId, c_void_p, c_void_p, c_void_p, POINTER(CommLoopLimits))
loop_connect = _function("loop_connect", CommLoopId, c_void_p, c_char_p, c_void_p,
                         POINTER(CommLoopLimits))
loop_remove = _function("loop_remove", c_int, c_void_p, CommLoopId)
loop_stop_listening = _function("loop_stop_listening", c_int, c_void_p, CommLoopId)
loop_get_endpoint = _function("loop_get_endpoint", c_void_p, c_void_p, CommLoopId)
loop_get_client = _function("loop_get_client", c_void_p, c_void_p, CommLoopId)
loop_send = _function("loop_send", c_int, c_void_p, CommLoopId, c_void_p)
loop_disconnect = _function("loop_disconnect", c_int, c_void_p, CommLoopId)
loop_finish = _function("loop_finish", c_int, c_void_p, CommLoopId)
loop_pause = _function("loop_pause", c_int, c_void_p, CommLoopId)
loop_resume = _function("loop_resume", c_int, c_void_p, CommLoopId)
loop_get_counters = _function("loop_get_counters", c_int, c_void_p, CommLoopId,
                              POINTER(CommLoopCounters))
