"""Servers and connections of asyncio, and what peers do to them."""
import asyncio
import errno
import gc
import logging
import os
import socket
import subprocess
import sys
import threading

import pytest
from conftest import ROOT, soon

import tarn_comm
from tarn_comm import Client, Disconnected, Limits, Packet, Server, connect


async def echo(client):
    async for request in client:
        await client.send(request.answer(*request.args, pairs=request.pairs.items(),
                                         data=request.data))


def raw_socket():
    return socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)


def raw(path):
    """A peer that does as it likes."""
    peer = raw_socket()
    while True:
        try:
            peer.connect(path)
            return peer
        except BlockingIOError:
            pass


def in_thread(work, *arguments):
    return asyncio.get_running_loop().run_in_executor(None, work, *arguments)


def run_with_server(path, on_client, test, **settings):
    async def main():
        async with Server(path, on_client, **settings) as server:
            return await asyncio.wait_for(test(server), 200)
    return asyncio.run(main())


def test_server_of_python_and_client_in_c(start, run, path):
    server = start("examples/python/store_server.py", path)
    assert run("examples/store_client", path, "set", "name", "text") == ""
    assert run("examples/store_client", path, "get", "name") == "text\n"
    assert run("examples/store_client", path, "list") == "name: text\n"
    listing = run("tool/tarn-comm", "call", path, "get", "other")
    assert os.strerror(errno.ENOENT) in listing
    server.terminate()
    assert server.wait() == 0
    assert not os.path.exists(path)


def test_connection_to_a_server_in_cpp(start, path):
    async def main():
        with pytest.raises(FileNotFoundError) as caught:
            await connect(path)
        assert caught.value.filename == path
        waiting = asyncio.ensure_future(connect(path, wait_for_server=True).__aenter__())
        await in_thread(start, "tool/tarn-comm", "serve", "-q", path, "late", "answer")
        connection = await waiting
        answers = await asyncio.gather(*(connection.call("ask", i) for i in range(50)))
        assert {answer.args for answer in answers} == {("answer",)}
        assert sorted(answer.message_id for answer in answers) == list(range(1, 51))
        await connection.close()
        with pytest.raises(Disconnected):
            await connection.next()
    asyncio.run(main())


def test_answers_find_their_calls(path):
    async def shuffle(client):
        asked = [await client.next() for _ in range(3)]
        await client.send(Packet("event"))
        for request in reversed(asked):
            await client.send(request.answer(*request.args))
        await client.send(asked[0].answer("again"))
        assert (await client.call("back", 1)).args == (2,)

    async def test(server):
        async with connect(path) as connection:
            cancelled = asyncio.ensure_future(connection.call("ask", 0))
            await asyncio.sleep(0)
            cancelled.cancel()
            answers = await asyncio.gather(connection.call("ask", 1), connection.call("ask", 2))
            assert [answer.args for answer in answers] == [(1,), (2,)]
            # What was cancelled is answered in vain, once.
            assert [(await connection.next()).args for _ in range(2)] == [(), ("again",)]
            # An answer that comes in the moment of a cancellation is not lost.
            waiting = asyncio.ensure_future(connection.answer_to(77))
            await asyncio.sleep(0)
            connection._on_packet(Packet("ask", 77, request=False, message_id=77))
            waiting.cancel()
            with pytest.raises(asyncio.CancelledError):
                await waiting
            assert (await connection.answer_to(77)).args == (77,)
            request = await connection.next()
            await connection.send(request.answer(2))
            assert [packet async for packet in connection] == []
            assert not connection.is_connected
            with pytest.raises(Disconnected):
                await connection.call("ask")

    run_with_server(path, shuffle, test)


def test_half_closed_peer_gets_every_answer(path):
    async def test(server):
        def peer():
            with raw(path) as s:
                for i in range(20):
                    s.send(bytes(Packet("ask", i, data=bytes(20000))))
                s.shutdown(socket.SHUT_WR)
                answers = [Packet.from_bytes(s.recv(70000)).args for _ in range(20)]
                return answers, s.recv(1)
        assert await in_thread(peer) == ([(i,) for i in range(20)], b"")
    run_with_server(path, echo, test)


def test_send_waits_for_room_and_reading_for_the_coroutine(path):
    sent = []

    async def flood(client):
        while True:
            await client.send(Packet("event", len(sent), data=bytes(20000)))
            sent.append(None)

    async def test(server):
        with await in_thread(raw, path) as deaf:
            await soon(lambda: server.clients and server.clients[0]._senders)
            before = len(sent)
            assert server.counters()["queued_packets"] <= 64
            await asyncio.sleep(0.05)
            assert len(sent) == before
            # It goes on where it stopped, in order.
            for i in range(200):
                packet = Packet.from_bytes(await in_thread(deaf.recv, 70000))
                assert packet.args == (i,)
            # Others are served all the same; the end reaches who waits for room.
            async with connect(path) as other:
                assert (await other.next()).command == "event"
        await soon(lambda: not server.clients)

    run_with_server(path, flood, test)

    async def never_reads(client):
        await asyncio.sleep(60)

    async def flood_server(server):
        async with connect(path) as connection:
            with pytest.raises(asyncio.TimeoutError):
                await asyncio.wait_for(flood(connection), 0.2)
            assert server.counters()["packets_received"] == 1
            connection.abort()
        here, there = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        connection = await connect(here)
        there.close()
        with pytest.raises(Disconnected):
            await flood(connection)
    run_with_server(path, never_reads, flood_server)


def test_who_leaves_is_noticed_and_has_its_requests_carried_out(path):
    carried_out, ended = [], []

    async def attend(client):
        if (await client.next()).command == "tell me":
            with pytest.raises(Disconnected):
                while True:
                    await client.send(Packet("event"))
                    await asyncio.sleep(0.001)
            ended.append(client)
            return
        async for request in client:
            for _ in range(3):
                await client.send(request.answer())
            carried_out.append(request.args[0])

    async def test(server):
        for extra in 0, 3:
            with await in_thread(raw, path) as subscriber:
                for _ in range(1 + extra):
                    subscriber.send(bytes(Packet("tell me")))
                assert Packet.from_bytes(await in_thread(subscriber.recv, 70000)).args == ()
        with await in_thread(raw, path) as hurried:
            for i in range(40):
                hurried.send(bytes(Packet("do", i)))
        await soon(lambda: len(ended) == 2 and not server.clients)
        assert carried_out == list(range(1, 40))

    run_with_server(path, attend, test)


def test_an_exception_ends_its_client_only(path):
    reported = []

    async def fragile(client):
        async for request in client:
            if request.command == "raise":
                raise ValueError("fragile")
            if request.command == "exit":
                return
            await client.send(request.answer(*request.args))

    async def test(server):
        asyncio.get_running_loop().set_exception_handler(lambda loop, c: reported.append(c))
        async with connect(path) as stays:
            for command in "raise", "exit":
                async with connect(path) as goes:
                    with pytest.raises(Disconnected):
                        await goes.call(command)
            assert (await stays.call("ask", 1)).args == (1,)
        assert [str(context["exception"]) for context in reported] == ["fragile"]
        # A refusal that fails turns away, and is reported as well.
        server._member._allow = lambda peer: 1 // 0
        with pytest.raises(Disconnected):
            await (await connect(path)).next()
        assert isinstance(reported[1]["exception"], ZeroDivisionError)

    run_with_server(path, fragile, test)


def test_hostile_peers(path, caplog):
    limits = Limits(clients=8, first_packet=2, descriptors_per_packet=1)
    taken = []

    async def take(client):
        async for request in client:
            taken.extend(request.take_descriptors())
            await client.send(request.answer(*request.args))

    async def test(server):
        async with connect(path) as good:
            assert (await good.call("ask", 1)).args == (1,)
            silent = [await in_thread(raw, path) for _ in range(10)]
            bad = await in_thread(raw, path)
            # All kinds of bytes, and of descriptors.
            dead, alive = socket.socketpair()
            dead.close()
            await soon(lambda: server.counters()["turned_away_full"] >= 3)
            await soon(lambda: server.counters()["gone_no_first"] == 7)
            for s in silent + [bad]:
                s.close()
            bad = await in_thread(raw, path)
            bad.send(bytes(Packet("ask")))
            for data in (b"x", bytes(64), bytes(Packet("a"))[:-1], os.urandom(500)):
                socket.send_fds(bad, [data], [alive.fileno()])
            socket.send_fds(bad, [bytes(Packet("two"))], [0, 1])
            socket.send_fds(bad, [bytes(Packet("one"))], [alive.fileno()])
            await soon(lambda: len(taken) == 2)  # One end of a text is not there, and still valid.
            for descriptor in (alive, *taken):
                descriptor.close()
            assert server.counters()["packets_dropped"] == 4
            # A flood without a look at the answers keeps nobody waiting.
            bad.setblocking(False)
            with pytest.raises(BlockingIOError):
                while True:
                    bad.send(bytes(Packet("ask", data=bytes(1000))))
            assert (await good.call("ask", 2)).args == (2,)
            bad.close()
            bad = subprocess.Popen([sys.executable, "-c", f"""
import os, signal, sys
sys.path.insert(0, {str(ROOT / 'python')!r})
import tarn_comm
client = tarn_comm.Client({path!r}, wait_for_server=True)
client.send(tarn_comm.Packet("ask"))
os.kill(os.getpid(), signal.SIGKILL)"""])
            await in_thread(bad.wait)
            await soon(lambda: len(server.clients) == 1)
            assert (await good.call("ask", 3)).args == (3,)

    log = logging.getLogger("test_hostile_peers")
    run_with_server(path, take, test, limits=limits, log=log)
    lines = {(record.levelname, record.getMessage().split(", ")[-1]) for record in caplog.records
             if record.name == log.name}
    assert {("WARNING", "failed to decode"), ("WARNING", "more descriptors than allowed")} <= lines


def test_a_socket_that_listens_is_taken_over(path):
    async def main():
        with raw_socket() as listening:
            with pytest.raises(OSError) as caught:
                await Server(listening, echo).__aenter__()
            assert caught.value.errno == errno.EINVAL and listening.fileno() >= 0
            listening.bind(path)
            listening.listen()
            async with Server(listening, echo), connect(path) as connection:
                assert listening.fileno() == -1
                assert (await connection.call("ask", 1)).args == (1,)
        assert os.path.exists(path)
        with pytest.raises(ConnectionRefusedError):
            await connect(path)
    asyncio.run(main())


def test_who_may_connect(path):
    async def test(server):
        assert os.stat(path).st_mode & 0o777 == 0o600
        with pytest.raises(Disconnected):
            await (await connect(path)).next()
        assert server.counters()["turned_away_handler"] == 1
        with pytest.raises(OSError) as caught:
            async with Server(path, echo):
                pass
        assert caught.value.errno == errno.EADDRINUSE
    seen = []
    run_with_server(path, echo, test, mode=0o600, allow=lambda peer: seen.append(peer))
    assert seen == [(os.getpid(), os.geteuid(), os.getegid())]


def test_shutdown_gives_last_words(path):
    async def last_words(client):
        await client.send(Packet("hello"))
        try:
            await asyncio.sleep(60)
        finally:
            await client.send(Packet("bye"))

    async def main():
        serving = asyncio.ensure_future(tarn_comm.serve(path, last_words))
        async with connect(path, wait_for_server=True) as connection:
            assert (await connection.next()).command == "hello"
            serving.cancel()
            assert [packet.command async for packet in connection] == ["bye"]
        with pytest.raises(asyncio.CancelledError):
            await serving
        assert not os.path.exists(path)
    asyncio.run(main())


def test_wrong_use_is_an_exception(path):
    async def test(server):
        connection = await connect(path)
        for use in connection.next_id, lambda: asyncio.run(connection.send(Packet("a"))):
            if use != connection.next_id:
                with pytest.raises(RuntimeError):
                    await in_thread(use)
        await connection.call("ask")
        child = os.fork()
        if child == 0:
            server.clients[0]._finish()  # As when its task is cancelled at the end of the child.
            try:
                connection.abort()
            except RuntimeError:
                os._exit(7)
            os._exit(1)
        assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7
        await connection.call("ask")
        for use, error in ((connection.answer_to("1"), TypeError), (connection.send(b"a"), TypeError),
                           (connection.answer_to(1 << 64), OverflowError)):
            with pytest.raises(error):
                await use
        await connection.close()
        await connection.close()
        for use in connection.next, lambda: connection.send(Packet("a")):
            with pytest.raises(Disconnected):
                await use()
        here, there = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        async with connect(here) as one, connect(there) as other:
            await one.send(Packet("a"))
            assert (await other.next()).command == "a"
        for bad in dict(queued_packets=-1), dict(idle=-1), dict(clients=2**32):
            with pytest.raises(OverflowError):
                await connect(path, limits=Limits(**bad))
        return server

    server = run_with_server(path, echo, test)
    for use in server.counters, lambda: server.clients:
        with pytest.raises(Disconnected):
            use()


def test_an_event_loop_that_is_left_behind(path):
    """Nothing was closed: descriptors and memory are given back all the same."""
    async def main():
        server = await Server(path, echo).__aenter__()
        connection = await connect(path)
        assert (await connection.call("ask", 1)).args == (1,)
        return server, connection
    server, connection = asyncio.run(main())
    del server, connection
    gc.collect()
    os.unlink(path) if os.path.exists(path) else None
    # And at the end of a program.
    program = """
import asyncio, sys, tarn_comm
async def echo(client):
    async for request in client: await client.send(request)
async def main():
    global server, connection, client
    server = await tarn_comm.Server("s", echo).__aenter__()
    connection = await tarn_comm.connect("s")
    client = tarn_comm.Client("s")
    await connection.send(tarn_comm.Packet("a"))
    sys.exit(3)
asyncio.run(main())
"""
    done = subprocess.run([sys.executable, "-X", "dev", "-c", program], check=False,
                          env={**os.environ, "PYTHONPATH": str(ROOT / "python")})
    assert done.returncode == 3


def test_a_thousand_clients_leave_nothing(path):
    async def test(server):
        def ask():
            with Client(path, timeout=60) as client:
                client.call("ask", 1, data=b"x").data.release()

        async def some(count):
            for i in range(count):
                async with connect(path) as connection:
                    answer = await connection.call("ask", i, pairs={"n": [1]}, data=b"x")
                    assert answer.args == (i,) and answer.pairs["n"] == [1] and answer.data == b"x"
                await in_thread(ask)
            await soon(lambda: not server.clients)
            gc.collect()
            return (len(os.listdir("/proc/self/fd")), len(gc.get_objects()),
                    sys.getallocatedblocks(), resident())
        await some(200)
        return await some(300), await some(1000)

    def resident():
        with open("/proc/self/statm") as file:
            return int(file.read().split()[1])

    before, after = run_with_server(path, echo, test)
    assert after[0] == before[0]
    assert abs(after[1] - before[1]) < 50
    assert after[2] - before[2] < 300
    assert after[3] - before[3] < 500
    assert threading.active_count() < 20
