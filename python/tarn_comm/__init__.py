"""Message channels between processes of one host: libtarn_utils_v4_comm for Python 3.9 and later.

A client that waits for its answers:

    with tarn_comm.Client("hello.socket", timeout=5) as server:
        answer = server.call("greet", "world")
        print(answer.args[0])

A server, with one coroutine for each client, and a client of asyncio:

    async def greet(client):
        async for request in client:
            await client.send(request.answer(f"Hello, {request.args[0]}!"))

    asyncio.run(tarn_comm.serve("hello.socket", greet))

    async with tarn_comm.connect("hello.socket") as server:
        answer = await server.call("greet", "world")

help() of each class and function says what it does: of Packet, Client, connect, serve, Server,
Connection, Limits, Descriptor and others. For all of them:

- Times are in seconds, None waits for ever.
- Addresses are paths, with a leading "@" abstract names, or a socket of the type SOCK_SEQPACKET,
  which is taken over: a connected one, such as an end of socket.socketpair(), and for a server one
  that listens.
- Text is str, and UTF-8 in the packet. Bytes of a peer that are not UTF-8 come as surrogates, as
  from os.fsdecode, and go out as they came.
- Failures are OSError with an errno. Of its subclasses PacketError says what a packet cannot hold,
  TimeoutError that the time was over, Disconnected that the peer has ended the connection; those of
  Python for ECONNREFUSED, EPIPE and so on come, too. A failure of what is sent as a packet (its
  error_code) is none. What has the wrong type is a TypeError, a number beyond 64 bits an
  OverflowError. When something is closed every call on it fails with ENOTCONN.
- Threads: a Packet may be read by any, and its descriptors taken by one; a Client is used by one at
  a time, and raises RuntimeError in a second; what belongs to asyncio is used by the thread of its
  event loop only, and raises RuntimeError elsewhere. Nothing here starts a thread.
- Fork: a child may use no connection or server of its parent. It may drop them, which does nothing
  to the parent.
- The library logs to standard error, and `log` is "normal", "debug" or "quiet"; or it is a
  logging.Logger, which gets the lines, those for debugging when it is enabled for them already. What
  a handler raises there, that of a signal as well, is printed and goes no further.

The shared library libtarn_utils_v4_comm.so.1 is looked for where the dynamic linker does.
"""
from .aio import Connection, Limits, Server, connect, serve
from .client import Client
from .descriptor import Descriptor
from .errors import Disconnected, PacketError, Reason
from .packet import (Argument, FourCC, Json, Multipart, Packet, Pairs, PairValue, UInt64, Value)
from .peer import Peer

__all__ = [
    "Argument", "Client", "Connection", "Descriptor", "Disconnected", "FourCC", "Json", "Limits",
    "Multipart", "Packet", "PacketError", "PairValue", "Pairs", "Peer", "Reason", "Server",
    "UInt64", "Value", "connect", "serve"
]
