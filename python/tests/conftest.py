"""Real `zr host` processes for the tests: each on a free port with a directory of its own, so
that the tests run in parallel with the rest of the suite."""

import os
import pathlib
import signal
import socket
import subprocess
import sys
import threading
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "python"))

ZR_BINARY = os.environ.get("ZR_BINARY", str(ROOT / "build" / "tools" / "zr" / "zr"))
SAMPLE = os.environ.get("ZR_SAMPLE", str(ROOT / "data" / "sample.wav"))
PROBES = os.environ.get("ZR_PROBES", str(ROOT / "build" / "python" / "libzr_python_test_probes.so"))
# Generous: an ASan build on a loaded machine starts slowly. Only an upper bound for a wait.
STARTUP = 60.0


def wait_until(condition, timeout=STARTUP, what="a condition"):
    """Polls `condition` until it is true; the polls themselves are round trips, so no sleep."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("timed out waiting for " + what)


def wait_heartbeats(client, n):
    """Waits until the client's I/O thread has done `n` more heartbeat rounds (each one syncs
    the directory): a span of time measured in the client's own beats, not by a clock."""
    assert client._directory.wait_syncs(n, STARTUP)


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Host:
    """A `zr host` serving its own directory, or joining the one of another (`join`); ready once
    it logged that it serves."""

    def __init__(self, *args, join=None):
        for _attempt in range(5):  # the free port may be taken between probe and bind
            self.directory = join or "tcp://127.0.0.1:%d" % _free_port()
            serve = [] if join else ["--serve-directory"]
            self._start([ZR_BINARY, "host", *serve, "--directory", self.directory, *args])
            if self.ready:
                return
            self.kill()
        raise AssertionError("zr host did not start: " + "\n".join(self.lines))

    def _start(self, argv, env=None):
        self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=subprocess.PIPE, text=True, env=env)
        self.lines = []
        self._cond = threading.Condition()
        threading.Thread(target=self._read, daemon=True).start()
        with self._cond:
            self._cond.wait_for(lambda: self.ready or self.proc.poll() is not None, STARTUP)

    @property
    def ready(self):
        return any(" serving" in l for l in self.lines)

    def _read(self):
        for line in self.proc.stderr:
            with self._cond:
                self.lines.append(line.rstrip("\n"))
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    def kill(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGKILL)
        self.proc.wait()

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGINT)
            try:
                self.proc.wait(STARTUP)
            except subprocess.TimeoutExpired:
                self.kill()
        return self.proc.returncode


class PyHost(Host):
    """`python3 -m zr host FILE ...` joining `directory`; ready once it logged that it serves."""

    def __init__(self, directory, *args):
        self.directory = directory
        env = dict(os.environ, PYTHONPATH=str(ROOT / "python"), ZR_DIRECTORY=directory,
                   PYTHONDONTWRITEBYTECODE="1")
        self._start([sys.executable, "-m", "zr", "host", *args], env)
        if not self.ready:
            self.kill()
            raise AssertionError("python3 -m zr host did not start: " + "\n".join(self.lines))


@pytest.fixture
def start_host():
    hosts = []

    def start(*args, join=None, python=False):
        h = PyHost(join, *args) if python else Host(*args, join=join)
        hosts.append(h)
        return h

    yield start
    for h in reversed(hosts):  # those that joined leave before the directory
        code = h.stop()
        # A sanitizer report makes the host exit non-zero; a killed host was meant to die.
        assert code in (0, -signal.SIGKILL), "zr host exited %s:\n%s" % (code, "\n".join(h.lines))


def zr_tool(*args, directory):
    env = dict(os.environ, ZR_DIRECTORY=directory)
    return subprocess.run([ZR_BINARY, *args], capture_output=True, text=True, env=env,
                          timeout=STARTUP)
