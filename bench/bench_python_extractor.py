#!/usr/bin/python3
"""How fast a Python sound extractor takes in sound: a do-nothing zr.SoundExtractor, hosted
here, fed by the C++ audio device of a `zr host` in another process with a generated 10-minute,
16 kHz, 4-channel file (as a multiple of real time, and the CPU this process spent per buffer);
then the time per buffer in the client's own layer alone (decoding a data message of 8 buffers,
dispatching each to processRemote and on to process), without sockets or threads.

    PYTHONPATH=python /usr/bin/python3 bench/bench_python_extractor.py [path/to/zr] [--runs N]
"""

import argparse
import pathlib
import socket
import subprocess
import sys
import threading
import time
import timeit
import wave

import numpy

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.dont_write_bytecode = True  # nothing written into the source tree
sys.path.insert(0, str(ROOT / "python"))
import zr  # noqa: E402
from zr import _wire as w  # noqa: E402
from zr._hosting import HostedModule  # noqa: E402
from zr._streams import Streams  # noqa: E402

RATE, CHANNELS, SECONDS, BUFFER = 16000, 4, 600, 1600
FILE = pathlib.Path("/tmp/zr_bench_python_10min_4ch.wav")


def input_file():
    if not FILE.exists():
        rng = numpy.random.default_rng(7)
        with wave.open(str(FILE), "wb") as f:
            f.setnchannels(CHANNELS)
            f.setsampwidth(2)
            f.setframerate(RATE)
            for _ in range(SECONDS):
                f.writeframes(rng.integers(-10000, 10000, (RATE, CHANNELS), "<i2").tobytes())
    return FILE


class Nothing(zr.SoundExtractor):
    """Counts the frames it is given, and nothing else."""

    def __init__(self, client, name, total):
        super().__init__(client, name)
        self.total, self.frames, self.buffers = total, 0, 0
        self.done = threading.Event()

    def process(self, samples, timestamp):
        self.buffers += 1
        self.frames += samples.shape[0]
        if self.frames >= self.total:
            self.done.set()


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def pipeline(zr_binary, runs):
    directory = "tcp://127.0.0.1:%d" % free_port()
    host = subprocess.Popen([zr_binary, "host", "--serve-directory", "--directory", directory,
                             "--memory", "--device", str(input_file()), "--log-level", "error"],
                            stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    try:
        for line in host.stderr:
            if "serving" in line:
                break
        threading.Thread(target=host.stderr.read, daemon=True).start()
        with zr.connect(directory) as c:
            sink = Nothing(c, "PyNothing", RATE * SECONDS)
            c.host("PyNothing", sink)
            for run in range(runs):
                sink.frames = sink.buffers = 0
                sink.done.clear()
                cpu, start = time.process_time(), time.perf_counter()
                c.call("PyNothing", "subscribe", "bench")
                sink.done.wait()
                wall, cpu = time.perf_counter() - start, time.process_time() - cpu
                c.call("PyNothing", "unsubscribe", "bench")
                print("pipeline, run %d: %d buffers in %.3f s wall = %.0fx real time; this "
                      "process %.1f us CPU per buffer" % (run + 1, sink.buffers, wall,
                                                          SECONDS / wall, cpu / sink.buffers * 1e6))
    finally:
        host.terminate()
        host.wait()


def layer(repeats):
    """Our layer per buffer: decode + fan-out dispatch + processRemote + process (which does
    nothing), on one thread."""

    class Conn:  # what Streams needs of the connections, without sockets
        on_data = None

        def submit(self, fn):
            pass

    class Quiet(zr.SoundExtractor):
        def __init__(self):  # no client: nothing here calls out
            self.name = "PyNothing"

        def process(self, samples, timestamp):
            pass

    module = HostedModule("PyNothing", Quiet(), "Quiet")

    class Inline:  # runs the stream's work at once, on this thread
        @staticmethod
        def submit(fn):
            fn()

    module.executor = Inline
    hosting = type("Hosting", (), {"modules": {"PyNothing": module}})()
    streams = Streams(Conn(), hosting)
    block = numpy.zeros((BUFFER, CHANNELS), numpy.int16).tobytes()
    calls = [[CHANNELS, BUFFER, [i, 0], block] for i in range(8)]
    body, blocks = w.encode_values([["PyNothing"]] + calls)
    frames = w.message(w.DATA, {"stream": "s", "seq": 1, "module": "", "method": "processRemote",
                                "caller": "ZRAudioDevice"}, body, blocks)
    frames = [bytes(f) for f in frames]

    def one_message():
        streams._incoming_data(b"peer", w.decode(frames))

    decoded = w.decode(frames).body[1:]

    def dispatch_only():
        for args in decoded:
            module.invoke("processRemote", args)

    def best(fn):
        return min(timeit.repeat(fn, number=200, repeat=repeats)) / 200 / 8 * 1e6

    total, decode, dispatch = best(one_message), best(lambda: w.decode(frames)), best(
        dispatch_only)
    print("our layer per buffer (data messages of 8 buffers of %d x %d): %.1f us: decoding "
          "%.1f us, dispatch to processRemote and process %.1f us" % (BUFFER, CHANNELS, total,
                                                                      decode, dispatch))


def main():
    p = argparse.ArgumentParser()
    p.add_argument("zr", nargs="?", default=str(ROOT / "build" / "tools" / "zr" / "zr"))
    p.add_argument("--runs", type=int, default=3)
    args = p.parse_args()
    layer(30)
    pipeline(args.zr, args.runs)


if __name__ == "__main__":
    main()
