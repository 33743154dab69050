#!/usr/bin/env python3
"""Sends a request to a server and prints the response, through the C functions of the library.

    call.py SOCKET COMMAND [TEXT...]
"""
import ctypes
import sys
import time
from ctypes import POINTER, c_char_p, c_int, c_size_t, c_uint32, c_ulong, c_void_p

COMM = ctypes.CDLL("libtarn_utils_v4_comm.so.1", use_errno=True)


class Pair(ctypes.Structure):
    """An entry of the table of name/value pairs: 16 bytes, at any address."""

    _pack_ = 1
    _fields_ = [("name_offset", c_uint32), ("value_offset", c_uint32),
                ("length", c_uint32), ("type", c_uint32)]


def function(name, result, *arguments):
    """The function of that name; without its types ctypes would cut pointers to 32 bits."""
    f = getattr(COMM, "comm_socket_v4_" + name)
    f.restype, f.argtypes = result, arguments
    return f


create = function("create", c_void_p)
destroy = function("destroy", c_int, c_void_p)
set_connect_timeout = function("set_connect_timeout", None, c_void_p, ctypes.c_uint64)
connect_to = function("connect_to", c_int, c_void_p, c_char_p)
is_open = function("is_open", c_int, c_void_p)
readable = function("client_from_server_readable", c_int, c_void_p, c_ulong)
get_packet = function("client_get_packet_from_server", c_void_p, c_void_p)
send = function("packet_send_to_server", c_int, c_void_p, c_void_p)

packet_create = function("packet_create", c_void_p)
packet_release = function("packet_release", c_void_p, c_void_p)
make_request = function("packet_make_request", None, c_void_p)
begin = function("packet_begin_writing", c_int, c_void_p, c_size_t, c_char_p, c_char_p)
write_argv = function("packet_write_argv", c_int, c_void_p, c_char_p)
write_end = function("packet_write_end", c_int, c_void_p)
get_command = function("packet_get_command", c_char_p, c_void_p)
get_error_string = function("packet_get_error_string", c_char_p, c_void_p)
get_argc = function("packet_get_argc", c_size_t, c_void_p)
get_argv = function("packet_get_argv", c_char_p, c_void_p, c_size_t)
nv_entries = function("packet_nv_entries", c_size_t, c_void_p)
get_nv_entry = function("packet_get_nv_entry", POINTER(Pair), c_void_p, c_size_t)
get_name = function("packet_get_nv_pair_name", c_char_p, c_void_p, POINTER(Pair))
get_value = function("packet_get_nv_pair_value_raw", c_void_p, c_void_p, POINTER(Pair))
get_data = function("packet_get_data", c_void_p, c_void_p, POINTER(c_size_t))


def printable(text):
    """A peer's text for a terminal, which obeys control characters."""
    return "".join(c if c.isprintable() else "?" for c in text.decode(errors="replace"))


def print_packet(packet):
    print("command:", printable(get_command(packet)))
    if get_error_string(packet):
        print("error:", printable(get_error_string(packet)))
    for i in range(get_argc(packet)):
        print(f"argument {i}:", printable(get_argv(packet, i)))
    for i in range(nv_entries(packet)):
        pair = get_nv_entry(packet, i)
        # Pairs may share their bytes: whole values could be thousands of times the packet.
        value = ctypes.string_at(get_value(packet, pair), min(pair.contents.length, 64))
        print(f"{printable(get_name(packet, pair))}, type {pair.contents.type}:", value)
    length = c_size_t()
    if get_data(packet, length):
        print("data:", length.value, "bytes")


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    path, command, *texts = (argument.encode() for argument in sys.argv[1:])
    server = create()
    set_connect_timeout(server, 5_000_000)
    if connect_to(server, path) != 0 or not is_open(server):
        sys.exit(f"cannot connect to {sys.argv[1]}, errno {ctypes.get_errno()}")
    request = packet_create()
    make_request(request)
    begin(request, 0, command, None)
    if any(write_argv(request, text) != 0 for text in texts):
        sys.exit("too many arguments")
    if write_end(request) != 0 or send(server, request) <= 0:
        sys.exit(f"cannot send, errno {ctypes.get_errno()}")
    packet_release(request)
    # The waits count on the clock of time.monotonic().
    response = readable(server, time.monotonic_ns() // 1000 + 5_000_000) == 1 and get_packet(server)
    if not response:
        sys.exit("no response")
    print_packet(response)
    packet_release(response)
    destroy(server)


main()
