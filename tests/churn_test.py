#!/usr/bin/env python3
"""Clients that come, talk, misbehave, are killed and come back: eight processes at a time, against
one server that sends back what it gets. Who behaves gets the same bytes and files back. When all
have left, the server holds the descriptors and the memory that it held before, and the library in
it has complained of nothing but records that are too long.

    churn_test.py TARN-COMM SECONDS [MEGABYTES-TO-GROW-BY]
"""
import os
import random
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import traceback

tool, seconds = sys.argv[1], float(sys.argv[2])
may_grow = float(sys.argv[3]) if len(sys.argv) > 3 else 1
rng = random.Random(1)
visits = [0, 0]  # of those who misbehave, and who behave


def packet(data):
    return struct.pack("<IIQQQIIIBIHIII", 0xABCD0201, 63, rng.getrandbits(64), 2, 3, 0, 0, 63,
                       0, 0, 0, 0, 69 if data else 0, len(data)) + b"churn\0" + data


def files():
    return [os.memfd_create("file") for _ in range(rng.randint(0, 3))]


def behave(connection):
    for _ in range(rng.randint(0, 20)):
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
        signal.alarm(30)
        rng.seed(seed)
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as connection:
            connection.connect(path)
            behave(connection) if well_behaved else misbehave(connection)
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


def descriptors():
    return sorted(os.listdir(f"/proc/{server.pid}/fd"), key=int)


def megabytes():
    with open(f"/proc/{server.pid}/statm", encoding="ascii") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 1e6


def wait_for(what):
    for _ in range(500):
        if what():
            return
        time.sleep(0.02)
    sys.exit("waited 10 seconds in vain; descriptors: " + " ".join(descriptors()))


with tempfile.TemporaryDirectory() as folder:
    path = os.path.join(folder, "socket")
    log = open(os.path.join(folder, "log"), "w+", encoding="ascii")
    with subprocess.Popen([tool, "serve", "--quiet", path], stderr=log) as server:
        try:
            wait_for(lambda: os.path.exists(path))
            at_first = descriptors()
            churn(seconds / 4)
            wait_for(lambda: descriptors() == at_first)
            before = megabytes()
            churn(seconds * 3 / 4)
            wait_for(lambda: descriptors() == at_first)
            print(f"{visits[1]} clients behaved, {visits[0]} did not; "
                  f"{before:.1f} MB before, {megabytes():.1f} MB after")
            if megabytes() > before + may_grow:
                sys.exit("the server has grown")
        finally:
            server.terminate()
    log.seek(0)
    complaints = [line for line in log if line != "\n" and "returned packet is larger" not in line]
    sys.exit("".join(complaints) or server.returncode)
