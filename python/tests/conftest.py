"""Every test leaves as many descriptors as it found, and none takes longer than five minutes."""
import asyncio
import gc
import os
import pathlib
import signal
import subprocess
import sys
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "python"), str(ROOT / "examples/python")]

import tarn_comm  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", default=str(ROOT / "build/default"), help="where the programs are")


def descriptors():
    return {fd: os.readlink(f"/proc/self/fd/{fd}") for fd in os.listdir("/proc/self/fd")
            if os.path.lexists(f"/proc/self/fd/{fd}")}


@pytest.fixture(autouse=True)
def nothing_left():
    signal.signal(signal.SIGALRM, lambda *_: os.abort())
    signal.alarm(300)
    before = descriptors()
    yield
    gc.collect()
    assert descriptors() == before
    signal.alarm(0)


@pytest.fixture
def path(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)  # A path of a server is short.
    return "s"


@pytest.fixture
def start(request, path):
    """Starts a program of the build, or of Python, that serves at a path, and waits until it
    does."""
    started = []

    def start_it(program, *arguments):
        command = [sys.executable] if program.endswith(".py") else []
        place = ROOT if command else pathlib.Path(request.config.getoption("--build"))
        started.append(subprocess.Popen(
            [*command, place / program, *arguments], stdout=subprocess.DEVNULL,
            env={**os.environ, "PYTHONPATH": str(ROOT / "python")}))
        tarn_comm.Client(path, timeout=120, wait_for_server=True).close()
        return started[-1]

    yield start_it
    for process in started:
        process.kill()
        process.wait()


@pytest.fixture
def run(request):
    """Runs a program of the build; what it printed."""
    def run_it(program, *arguments):
        place = pathlib.Path(request.config.getoption("--build"))
        return subprocess.run([place / program, *arguments], stdout=subprocess.PIPE, timeout=120,
                              check=False).stdout.decode()
    return run_it


def until(condition):
    """For what another process does."""
    while not condition():
        time.sleep(0.01)


async def soon(condition):
    while not condition():
        await asyncio.sleep(0.01)
