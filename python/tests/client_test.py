"""The blocking client, against servers in C and C++."""
import errno
import itertools
import math
import os
import signal
import socket
import sys
import threading
import time

import pytest
from conftest import until

from tarn_comm import Client, Disconnected, Multipart, Packet, PacketError


def pair(timeout=60, **settings):
    """A client, and the other end of its pair as a plain client, too."""
    here, there = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    return Client(here, timeout=timeout, **settings), Client(there, timeout=60)


def test_server_in_c(start, path):
    server = start("examples/store_server", path)
    with Client(path, timeout=60) as client:
        assert client.peer.pid == server.pid
        assert client.call("set", "name", "völlig\udcff").error_code == 0
        assert client.call("get", "name").args == ("völlig\udcff",)
        assert dict(client.call("list").pairs.items()) == {"name": "völlig\udcff"}
        answer = client.call("get", "other")
        assert (answer.error_code, answer.error_string) == (errno.ENOENT, os.strerror(errno.ENOENT))
        server.terminate()
        with pytest.raises((Disconnected, ConnectionResetError)):
            client.next(60)
        assert not client.is_connected
        with pytest.raises(Disconnected):
            client.next()
    with pytest.raises(FileNotFoundError) as caught:
        Client(path)
    assert caught.value.filename == path
    with pytest.raises(TimeoutError):
        Client(path, wait_for_server=True, timeout=0.05)


def test_server_in_cpp_sends_all_back(start, path, tmp_path):
    start("tool/tarn-comm", "serve", "-q", path)
    (tmp_path / "file").write_text("inside")
    with Client(path, timeout=60) as client, open(tmp_path / "file", "rb") as file:
        request = Packet("echo", 1.5, pairs={"n": [1, 2]}, data=b"x" * 60000, descriptors=[file])
        client.send(request)
        with pytest.raises(OSError) as caught:
            client.send(request)  # Its descriptor has gone with it.
        assert caught.value.errno == errno.EBADF
        answer = client.next()
        assert (answer.args, answer.pairs["n"], answer.data) == ((1.5,), [1, 2], b"x" * 60000)
        (descriptor,) = answer.take_descriptors()
        assert not os.get_inheritable(descriptor.fileno())
        with open(descriptor.detach(), "rb") as received:
            assert os.pread(received.fileno(), 10, 0) == b"inside"


def test_answers_are_found_and_the_rest_is_kept():
    client, other = pair()
    for text, fields in (("event", {}), ("a", {"message_id": 1, "multipart": Multipart.FIRST}),
                         ("b", {"message_id": 1, "multipart": Multipart.LAST})):
        other.send(Packet("ask", text, request=False, **fields))
    assert client.call("ask").args == ("a",)
    assert client.answer_to(1).args == ("b",)
    with pytest.raises(TimeoutError):
        client.call("ask", timeout=0.05)
    with pytest.raises(TimeoutError):
        client.answer_to(9, timeout=0)
    for request in other.next(), other.next():
        other.send(request.answer("late"))
    other.send(Packet("end"))
    other.close()
    # The first answer has an id that nobody gave up, the second comes too late.
    assert [packet.args for packet in client] == [("event",), ("late",), ()]
    with pytest.raises(BrokenPipeError if client.is_connected else Disconnected):
        client.send(Packet("a"))
    client.close()


def test_bounds():
    client, other = pair(keep=2, max_descriptors=0, log="quiet")
    for i in range(3):
        other.send(Packet("event", i))
    with pytest.raises(OSError) as caught:
        client.call("ask")
    assert caught.value.errno == errno.ENOBUFS
    assert [client.next().args[0] for _ in range(3)] == [0, 1, 2]
    with pytest.raises(PacketError):
        client.call("")
    try:
        other.send(Packet("take", descriptors=[0]))
    except PermissionError:
        pass  # Newer kernels refuse it, older receivers drop it.
    with pytest.raises(TimeoutError):
        client.next(0)
    # Two who send to each other, and never read by themselves, do not wait for ever.
    client.close()
    client, other = pair()
    done = []

    def send_and_then_read(end):
        for _ in range(100):
            end.send(Packet("a", data=bytes(60000)))
        done.append(sum(end.next() is not None for _ in range(100)))

    threads = [threading.Thread(target=send_and_then_read, args=(end,)) for end in (client, other)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert done == [100, 100]
    client.close(), other.close()


class Interrupt(Exception):
    pass


@pytest.mark.parametrize("call", [
    lambda client: client.next(None), lambda client: client.call("a", timeout=None),
    lambda client: [client.send(Packet("a", data=bytes(60000)), None) for _ in range(100)],
    lambda client: Client("none", timeout=None, wait_for_server=True)])
def test_a_signal_handler_ends_a_call(call, path):
    def interrupt(*_):
        raise Interrupt

    old = signal.signal(signal.SIGUSR1, interrupt)
    client, other = pair()
    with client, other:
        timer = threading.Timer(0.1, signal.pthread_kill, (threading.get_ident(), signal.SIGUSR1))
        with pytest.raises(Interrupt):
            timer.start()
            call(client)
        timer.join()
        other.send(Packet("on"))
        assert client.next().command == "on"
    signal.signal(signal.SIGUSR1, old)


def test_an_interrupted_client_can_be_used():
    """A signal handler runs where a function begins, and behind one of C."""
    client, other = pair()

    def interrupt(frame, event, argument):
        nonlocal left
        left -= event in ("call", "c_return") and frame.f_code.co_name != "__del__"
        if left == 0:
            raise Interrupt

    for point in itertools.count(1):
        left = point
        other.send(Packet("a", descriptors=[0]))
        try:
            sys.setprofile(interrupt)
            client.next()
        except Interrupt:
            pass
        finally:
            sys.setprofile(None)
        assert client.is_connected
        if left > 0:
            break
    assert point > 10
    client.close(), other.close()


def test_wrong_use_is_an_exception():
    client, other = pair()
    with pytest.raises(OverflowError):
        client.answer_to(1 << 64)
    with pytest.raises(TypeError):
        client.send(b"a")
    thread = threading.Thread(target=lambda: pytest.raises(Disconnected, client.next, None))
    thread.start()
    until(client._in_use.locked)
    for use in client.next, client.fileno, client.close, lambda: client.send(Packet("a")):
        with pytest.raises(RuntimeError):
            use()
    other.close()
    thread.join()
    client.close()
    client.close()
    for use in (client.next, client.fileno, client.next_id, lambda: client.peer,
                lambda: client.send(Packet("a")), lambda: client.call("a")):
        with pytest.raises(Disconnected) as caught:
            use()
        assert caught.value.errno == errno.ENOTCONN
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as wrong:
        for bad, error in ((wrong, OSError), ("a\0", ValueError), ("", OSError), (5, TypeError)):
            with pytest.raises(error):
                Client(bad)
    with pytest.raises(ValueError):
        Client("a", log="loud")
    client, other = pair()
    with other, pytest.warns(ResourceWarning):
        del client
    for bad, error in ((dict(max_descriptors=61), OSError), (dict(keep=-1), OverflowError),
                       (dict(max_descriptors=1 << 32), OverflowError)):
        with pytest.raises(error):
            Client("a", **bad)


def test_times_are_kept():
    client, other = pair()
    with client, other:
        threading.Timer(0.1, other.send, (Packet("a"),)).start()
        assert client.next(math.inf).command == "a"
        begun = time.monotonic()
        with pytest.raises(TimeoutError):
            client.next(0.05)
        assert time.monotonic() - begun >= 0.05
