#!/usr/bin/env python3
"""Clients that come, talk, misbehave, are killed and come back: eight processes at a time, against
one server that sends back what it gets. Who behaves gets the same bytes and files back, also while
the server is attacked. When all have left, the server holds the descriptors and the memory that it
held before, and the library in it has complained of nothing but records that are too long.

    churn_test.py PROGRAM SECONDS [MEGABYTES-TO-GROW-BY [ARGUMENT...]]

The server is PROGRAM ARGUMENT... PATH. Without arguments it is tarn-comm, run as PROGRAM serve
--quiet PATH. Where it is not said it may grow by 1.
"""
import ctypes
import os
import random
import resource
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import traceback

program, seconds = sys.argv[1], float(sys.argv[2])
may_grow = sys.argv[3] if len(sys.argv) > 3 else "1"
arguments = sys.argv[4:] or ["serve", "--quiet"]
rng = random.Random(1)
visits = [0, 0]  # of those who misbehave, and who behave


def packet(data):
    return struct.pack("<IIQQQIIIBIHIII", 0xABCD0201, 63, rng.getrandbits(64), 2, 3, 0, 0, 63,
                       0, 0, 0, 0, 69 if data else 0, len(data)) + b"churn\0" + data


def files():
    return [os.memfd_create("file") for _ in range(rng.randint(0, 3))]


def connect():
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    for wait in socket.SO_RCVTIMEO, socket.SO_SNDTIMEO:  # the latter for a full queue, too
        connection.setsockopt(socket.SOL_SOCKET, wait, struct.pack("ll", 100, 0))
    connection.connect(path)
    return connection


def ask(connection):
    connection.send(packet(b""))
    assert connection.recv(100)


def behave(connection, times):
    for _ in range(times):
        sent, given = packet(rng.randbytes(rng.randint(0, 60000))), files()
        socket.send_fds(connection, [sent], given)
        back, got = socket.recv_fds(connection, 70000, 60)[:2]
        assert back == sent, f"{len(sent)} bytes went, {len(back)} came back"
        assert [os.fstat(fd).st_ino for fd in got] == [os.fstat(fd).st_ino for fd in given]
        for fd in given + got:
            os.close(fd)


def misbehave(connection):
    connection.setblocking(False)
    try:
        for _ in range(rng.randint(0, 40)):
            record = bytearray(rng.choice((packet(b"data"), rng.randbytes(rng.randint(1, 70000)))))
            if rng.random() < 0.5:
                record[rng.randrange(min(len(record), 80))] ^= 1 << rng.randrange(8)
            socket.send_fds(connection, [record], files())
        if rng.random() < 0.5:
            connection.send(b"")  # reads as the end
    except OSError:
        pass  # nobody reads what it gets back, so the server may have had enough
    if rng.random() < 0.5:
        signal.pause()


def visit(well_behaved, seed):
    status = 1
    try:
        signal.alarm(100)
        rng.seed(seed)
        with connect() as connection:
            if well_behaved:
                behave(connection, rng.randint(0, 20))
            else:
                misbehave(connection)
        status = 0
    except Exception:
        traceback.print_exc()
    finally:
        os._exit(status)


def churn(lasting):
    visitors = {}  # whether they behave, by process
    end = time.monotonic() + lasting
    killed = set()
    while visitors or time.monotonic() < end:
        over = time.monotonic() >= end
        if not over and len(visitors) < 8:
            well_behaved, seed = rng.random() < 0.5, rng.random()
            pid = os.fork()
            if pid == 0:
                visit(well_behaved, seed)
            visitors[pid] = well_behaved
            visits[well_behaved] += 1
        for pid, well_behaved in visitors.items():
            if rng.random() < 0.01 or over and not well_behaved:
                os.kill(pid, signal.SIGKILL)
                killed.add(pid)
        pid, status = os.waitpid(-1, os.WNOHANG) if visitors else (0, 0)
        if pid == server.pid:
            sys.exit(f"the server ended with {status}")
        if pid != 0:
            del visitors[pid]
            if status != 0 and not (pid in killed and os.WTERMSIG(status) == signal.SIGKILL):
                sys.exit(f"a client ended with {status}")
        time.sleep(0.001)


def keep_copies():
    """Of what the server closes: an epoll that was not told so goes on to watch it."""
    syscall = ctypes.CDLL(None).syscall
    with connect() as leaving:
        ask(leaving)
        pidfd = syscall(434, server.pid, 0)  # pidfd_open(2), and pidfd_getfd(2) below
        copies = [pidfd] + [syscall(438, pidfd, int(fd), 0)
                            for fd in descriptors() if fd not in at_first]
    if -1 in copies:
        print("skipped: copies of what the server closes, pidfd_getfd is refused", file=sys.stderr)
    return [fd for fd in copies if fd >= 0]


def ask_too_much(connection):
    """There are more answers then than the socket takes."""
    asked = 0
    while asked < 1000 and select.select([], [connection], [], 0.2)[1]:
        asked += connection.send(packet(bytes(60000))) > 0


def end_by_half(connection, half):
    """And read what is left."""
    ask_too_much(connection)
    connection.shutdown(half)
    while connection.recv(70000):
        pass


def leave_answers():
    """Unread, to a server that has more of them, and that does not spin then."""
    with connect() as leaving:
        ask_too_much(leaving)
    with connect() as dumb, connect() as deaf:
        end_by_half(dumb, socket.SHUT_WR)
        end_by_half(deaf, socket.SHUT_RD)
        ask(resident)
        clock = ~server.pid << 3 | 2  # its CPU time, see clock_getcpuclockid(3)
        before = time.clock_gettime(clock)
        time.sleep(1)
        assert time.clock_gettime(clock) - before < 0.2, "the server spins"


def break_log():
    """A line behind the limit brings a signal that would end the server."""
    limits = resource.prlimit(server.pid, resource.RLIMIT_FSIZE)
    size = os.fstat(log.fileno()).st_size
    resource.prlimit(server.pid, resource.RLIMIT_FSIZE, (size, limits[1]))
    with connect() as connection:
        for _ in range(9):
            connection.send(bytes(70000))
        ask(connection)
    resource.prlimit(server.pid, resource.RLIMIT_FSIZE, limits)


def flood(act):
    pid = os.fork()
    try:
        while pid == 0:
            act()
    finally:
        if pid == 0:
            os._exit(1)
    return pid


def endure(act):
    """Who floods gets a share of every round and no more. One of three that do it also asks, as
    another client, and counts how often it acts until the answer is there: what a queue takes, and
    the share of a round or two. A time would say how busy the machine is."""
    flooding = [flood(act), flood(act)]
    for _ in range(50):
        resident.send(packet(b""))
        acts = 0
        while not select.select([resident], [], [], 0)[0]:
            act()
            acts += 1
            assert acts < 300, "a flood is served before others"
        assert resident.recv(100)
        with connect() as newcomer:
            ask(newcomer)
    for pid in flooding:
        os.kill(pid, signal.SIGKILL)
        assert os.waitpid(pid, 0)[1] == signal.SIGKILL, "a flood has ended"


def endure_floods():
    with connect() as eager, connect() as senseless:
        for _ in range(100):
            eager.send(packet(b""))
        endure(lambda: ask(eager))  # each answer that is read makes room for a question
        senseless.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 65536)  # for less than 200
        endure(lambda: senseless.send(b"no packet"))
    endure(lambda: connect().close())


def attack():
    copies = keep_copies()
    leave_answers()
    for fd in copies:
        os.close(fd)
    break_log()
    endure_floods()


def descriptors():
    return sorted(os.listdir(f"/proc/{server.pid}/fd"), key=int)


def megabytes():
    with open(f"/proc/{server.pid}/statm", encoding="ascii") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6


def wait_for(what):
    for _ in range(5000):
        if result := what():
            return result
        if server.poll() is not None:
            log.seek(0)
            sys.exit(f"the server ended with {server.returncode}: {log.read()[-1000:]}")
        time.sleep(0.02)
    sys.exit("waited 100 seconds in vain; descriptors: " + " ".join(descriptors()))


def first_client():
    """The path is there before somebody listens."""
    try:
        return connect()
    except OSError:
        return None


with tempfile.TemporaryDirectory() as folder:
    path = os.path.join(folder, "socket")
    log = open(os.path.join(folder, "log"), "w+", encoding="ascii")
    with subprocess.Popen([program, *arguments, path], stderr=log) as server:
        try:
            # Floods go first, so that its queues are full whenever it gets a processor.
            os.setpriority(os.PRIO_PROCESS, server.pid, 10)
            resident = wait_for(first_client)
            ask(resident)
            at_first, size = descriptors(), []
            for part in (0.25, 0.75):
                churn(seconds * part)
                attack()
                wait_for(lambda: descriptors() == at_first)
                size.append(megabytes())
            print(f"{visits[1]} clients behaved, {visits[0]} did not; "
                  f"{size[0]:.1f} MB before, {size[1]:.1f} MB after")
            if size[1] > size[0] + float(may_grow):
                sys.exit("the server has grown")
        except BaseException:
            server.kill()
            raise
        server.terminate()
    log.seek(0)
    complaints = [line for line in log if line != "\n" and "returned packet is larger" not in line]
    sys.exit("".join(complaints) or server.returncode)
