"""The audio device's timestamp as Python reads it: the decoder agrees with the C++ header on
every field, edge values included, and a live device's buffers decode into positions that count
the samples lost in an injected gap."""

import threading
import time

import numpy
import pytest

import zr
from conftest import PROBES, STARTUP
from test_extractor import write_wav


def test_the_decoder_reads_what_the_cpp_header_writes(start_host):
    host = start_host("--memory", "--load", PROBES, "-e", "TimestampEcho")
    with zr.connect(host.directory) as c:
        cases = [(0, 0, 0, 0, 16000),
                 (16001, 5, 1, 1, 16000),
                 (2**31 + 5, 2**40 + 7, 1764000000123456789, 2**33 + 1, 48000),
                 (2**40, 2**63 - 1, -(2**62), 2**32 - 1, 44100),
                 (123456789, -1, 2**32, 2**31, 8000)]
        for sample, mono, real, seq, rate in cases:
            value = c.call("TimestampEcho", "encode", str(sample), str(mono), str(real),
                           str(seq), rate)
            ts = zr.decode_timestamp(value)
            assert isinstance(ts, zr.Timestamp) and ts.has_position
            us = sample * 1000000 // rate
            assert (ts.seconds, ts.microseconds) == (us // 1000000, us % 1000000)
            assert (ts.sample, ts.monotonic_ns, ts.realtime_ns, ts.sequence) == (
                sample, mono, real, seq)
            assert float(ts) == pytest.approx(us / 1e6, abs=1e-6)
        for sample in (0, 7, 2**31 - 1, 2**31, 2**40 + 3, -5):
            assert zr.decode_sample(c.call("TimestampEcho", "position", str(sample))) == sample
    # Older shapes: [seconds, microseconds] reads as before; anything else passes through.
    old = zr.decode_timestamp([7, 250000])
    assert old == pytest.approx(7.25) and not old.has_position and old.sample == 0
    assert zr.decode_timestamp("not a timestamp") == "not a timestamp"
    assert zr.decode_timestamp([1.5, 2]) == [1.5, 2]
    assert zr.decode_sample("x") is None


def test_a_device_buffers_say_where_they_sit_across_an_injected_gap(start_host, tmp_path):
    data = numpy.arange(16000, dtype=numpy.int16).reshape(-1, 1)
    write_wav(tmp_path / "in.wav", data)
    host = start_host("--memory", "--device", str(tmp_path / "in.wav"), "--buffer", "1600",
                      "--inject-gap", "4000:1000")
    got, done = [], threading.Event()

    class Recorder(zr.SoundExtractor):
        def process(self, samples, timestamp):
            got.append((timestamp, samples.copy()))
            if sum(len(s) for _, s in got) >= len(data) - 1000:
                done.set()

    with zr.connect(host.directory) as c:
        c.host("PyStamps", Recorder(c, "PyStamps"))
        c.call("PyStamps", "subscribe", "tester")
        assert done.wait(STARTUP), "got %d buffers" % len(got)
        c.call("PyStamps", "unsubscribe", "tester")
    positions = [ts.sample for ts, _ in got]
    assert positions[:5] == [0, 1600, 3200, 5000, 6600]  # cut short at the gap, then past it
    for i, (ts, samples) in enumerate(got):
        assert ts.has_position and ts.sequence == i
        assert (ts.seconds * 1000000 + ts.microseconds) == ts.sample * 1000000 // 16000
        # The file counts up: each buffer holds exactly the samples at its position.
        assert numpy.array_equal(samples[:, 0], data[ts.sample:ts.sample + len(samples), 0])
        if i:
            assert ts.monotonic_ns >= got[i - 1][0].monotonic_ns
    assert abs(got[0][0].realtime_ns - time.time_ns()) < 600 * 10**9
