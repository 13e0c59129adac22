"""zr.Extractor and zr.SoundExtractor against real hosts, held call by call to the C++ base
classes (the probes of probes.cpp, hosted by `zr host --load`)."""

import json
import pathlib
import re
import signal
import threading
import wave

import numpy
import pytest
import zmq

import zr
from conftest import PROBES, STARTUP, wait_until, zr_tool

HERE = pathlib.Path(__file__).resolve().parent
PY_NAMES = ["--name", "HookProbe=PyHookProbe", "--name", "BoundedProbe=PyBoundedProbe",
            "--name", "PlainSound=PyPlainSound"]


def fields(err):
    return (err.module, err.method, err.description)


def write_wav(path, samples, rate=16000):
    """samples: int16 of shape (frames, channels)."""
    with wave.open(str(path), "wb") as f:
        f.setnchannels(samples.shape[1])
        f.setsampwidth(2)
        f.setframerate(rate)
        f.writeframes(samples.astype("<i2").tobytes())


@pytest.fixture
def probes(start_host):
    """A C++ host with the memory and the C++ probes, a Python host with their twins."""
    cpp = start_host("--memory", "--load", PROBES, "-e", "HookProbe", "-e", "BoundedProbe",
                     "-e", "PlainSound")
    start_host(str(HERE / "probes.py"), *PY_NAMES, join=cpp.directory, python=True)
    with zr.connect(cpp.directory) as c:
        wait_until(lambda: c.wait_for("PyPlainSound", 1.0), what="the Python probes")
        yield cpp, c


def test_method_tables_and_versions_equal_the_cpp_ones(probes):
    cpp, c = probes
    for name in ("HookProbe", "BoundedProbe", "PlainSound"):
        tables = []
        for module in (name, "Py" + name):
            out = zr_tool("describe", module, "-f", "jsonl", directory=cpp.directory)
            assert out.returncode == 0, out.stderr
            rows = [json.loads(l) for l in out.stdout.splitlines()]
            assert all(r.pop("module") == module for r in rows)
            tables.append(rows)
        assert tables[0] == tables[1], name
        assert c.call(name, "version") == c.call("Py" + name, "version")
    # What the table says, read from the Python side: the 13 rows, then the sound ones.
    rows = c.describe("PyPlainSound")
    assert [r["method"] for r in rows][4:] == [
        "subscribe", "subscribe", "unsubscribe", "updatePeriod", "updatePrecision",
        "getCurrentPeriod", "getCurrentPrecision", "getMyPeriod", "getMyPrecision",
        "getSubscribersInfo", "getOutputNames", "getEventList", "getMemoryKeyList",
        "setDebugMode", "processRemote", "processSoundRemote"]
    assert c.call("PyPlainSound", "version") == ""


# Each step: (method, arguments). The transcript records each call's result or error, then the
# getters and the hook calls it caused.
LIFECYCLE = [
    ("subscribe", ["A", 100, 0.5]),           # first: start hook, no update
    ("subscribe", ["B", 40, 0.2]),            # update 40, 0.5
    ("subscribe", ["B", 40, 0.75]),           # already subscribed: values replaced
    ("updatePeriod", ["A", 0]),               # clamped to the minimum
    ("updatePeriod", ["A", 100000]),          # no maximum, or clamped to it
    ("updatePrecision", ["B", -1.5]),         # stored as given
    ("subscribe", ["C"]),                     # one argument: the current values
    ("subscribe", ["0 first", 60, 0.1]),      # byte-wise order of the names
    ("unsubscribe", ["B"]),
    ("unsubscribe", ["nobody"]),
    ("updatePeriod", ["nobody", 5]),
    ("updatePrecision", ["nobody", 0.5]),
    ("getMyPeriod", ["nobody"]),
    ("getMyPrecision", ["nobody"]),
    ("getMyPeriod", ["C"]),
    ("getMyPrecision", ["C"]),
    ("subscribe", ["D", 10, 1]),              # an int for the float
    ("subscribe", ["D", "10", 1.0]),          # no overload takes it
    ("subscribe", [5]),
    ("unsubscribe", []),
    ("updatePeriod", ["D", 2.5]),
    ("getOutputNames", []),
    ("getEventList", []),
    ("getMemoryKeyList", []),
    ("nothing", []),
    ("unsubscribe", ["A"]), ("unsubscribe", ["C"]), ("unsubscribe", ["0 first"]),
    ("unsubscribe", ["D"]),                   # the last one: stop hook, values reset
    ("unsubscribe", ["D"]),
    ("subscribe", ["E"]),                     # idle: the defaults
    ("subscribe", ["F", -7, float("nan")]),   # a NaN never wins
    ("unsubscribe", ["E"]), ("unsubscribe", ["F"]),
]


def normal(text, name):
    """The text with the probe's name and the source line an error names made alike: the line
    is each implementation's own."""
    return re.sub(r"(/zrextractor):\d+\)", r"\1:LINE)", text.replace(name, "<probe>"))


def transcript(c, name):
    out = []
    for method_name, args in LIFECYCLE:
        try:
            result = ("ok", c.call(name, method_name, *args))
        except zr.ZRError as e:
            result = ("error", normal(e.module, name), e.method, normal(e.description, name))
        out.append((method_name, args, result, c.call(name, "getCurrentPeriod"),
                    c.call(name, "getCurrentPrecision"), c.call(name, "getSubscribersInfo"),
                    c.call(name, "getHookCalls")))
    return json.loads(json.dumps(out).replace("NaN", "\"NaN\""))


def test_lifecycle_call_by_call_as_in_cpp(probes):
    _, c = probes
    for name in ("HookProbe", "BoundedProbe"):
        cpp, py = transcript(c, name), transcript(c, "Py" + name)
        for step_cpp, step_py in zip(cpp, py):
            assert step_py == step_cpp
    # A few fixed points, so that the C++ side is not only compared with itself.
    steps = dict((i, s) for i, s in enumerate(transcript(c, "PyHookProbe")))
    assert steps[0][2:] == [["ok", None], 100, 0.5, [["A", 100, 0.5]], [["start", 100, 0.5]]]
    assert steps[1][6] == [["update", 40, 0.5]]
    source = " (../libzrextractor/src/zrextractor:LINE)"
    assert steps[9][2] == ["error", "<probe>", "unsubscribe", "ZRExtractor::received unsubscribe "
                           "from non-subscribed module: nobody" + source]
    assert steps[10][2] == ["error", "<probe>", "updatePeriod",
                            "ZRExtractor::updateParam: unknown module name: nobody" + source]
    assert steps[17][2] == ["error", "<probe>", "subscribe", "no overload of subscribe takes "
                            "(string, string, float); it has subscribe(string, int, float), "
                            "subscribe(string)"]
    assert steps[28][2:] == [["ok", None], -1, -1.0, [], [["stop"]]]


def test_a_reaped_subscriber_stops_it(probes, start_host):
    cpp, c = probes
    victim = start_host("-e", "SoundLevel", join=cpp.directory)
    for name in ("HookProbe", "PyHookProbe"):
        c.call(name, "getHookCalls")
        c.call(name, "subscribe", "SoundLevel", 100, 0.5)
        assert c.call(name, "getHookCalls") == [["start", 100, 0.5]]
    victim.kill()
    for name in ("HookProbe", "PyHookProbe"):
        wait_until(lambda: c.call(name, "getSubscribersInfo") == [], what=name + " to reap")
        assert c.call(name, "getHookCalls") == [["stop"]]
        assert c.call(name, "getCurrentPeriod") == -1


def test_device_subscription_follows_the_subscribers(probes, start_host):
    cpp, c = probes
    # No device: the start fails as in C++, and the subscriber stays.
    errors = []
    for name in ("PlainSound", "PyPlainSound"):
        with pytest.raises(zr.ZRError) as e:
            c.call(name, "subscribe", "client")
        errors.append(e.value)
        assert c.call(name, "getSubscribersInfo") == [["client", 30, 0.0]]
        c.call(name, "unsubscribe", "client")
    for name, e in zip(("PlainSound", "PyPlainSound"), errors):
        assert (e.module, e.method) == (name, "subscribe")
        assert e.description.startswith(name + "::startDetection: ZRAudioDevice::getProxy: no "
                                        "module called \"ZRAudioDevice\" ")
    # A device comes: the first subscriber subscribes the extractor to it, the last one
    # unsubscribes it; what happens in between sends the device nothing.
    start_host("--device", "silence", "--realtime", join=cpp.directory)
    device = c.proxy("ZRAudioDevice")
    seen = []

    def subscribed(name):
        # Each host learns of the device at its next sync: until then the start fails.
        try:
            c.call(name, "subscribe", "a", 100, 0.5)
            return True
        except zr.ZRError:
            c.call(name, "unsubscribe", "a")
            return False

    for name in ("PlainSound", "PyPlainSound"):
        wait_until(lambda: subscribed(name), what=name + " to find the device")
        seen.append(device.getSubscribers())
        # Its host tells the device how late its buffers start there.
        wait_until(lambda: device.getLatency(name)[3] > 0, what=name + "'s latency")
        c.call(name, "subscribe", "b")
        c.call(name, "updatePeriod", "b", 10)
        c.call(name, "unsubscribe", "a")
        seen.append(device.getSubscribers())
        c.call(name, "unsubscribe", "b")
        seen.append(device.getSubscribers())
    assert seen == [["PlainSound"]] * 2 + [[]] + [["PyPlainSound"]] * 2 + [[]]


def test_sound_buffers_reach_process_as_numpy_views(start_host, tmp_path):
    rng = numpy.random.default_rng(3)
    data = rng.integers(-20000, 20000, size=(16000 * 2 + 700, 3), dtype=numpy.int16)
    write_wav(tmp_path / "in.wav", data)
    host = start_host("--memory", "--device", str(tmp_path / "in.wav"))
    c = zr.connect(host.directory)
    got, done = [], threading.Event()

    class Recorder(zr.SoundExtractor):
        def process(self, samples, timestamp):
            entry = [None] * 5
            if samples is not None:
                base = samples
                while base is not None and not isinstance(base, memoryview):
                    base = getattr(base, "base", None)
                entry = [samples.copy(), samples.shape, samples.dtype, samples.flags.writeable,
                         isinstance(getattr(base, "obj", None), zmq.Frame)]
            got.append(entry + [timestamp, threading.current_thread().name])
            super().process(samples, timestamp)

        def process_sound(self, samples):
            got[-1].append(samples is not None)

        def processSoundRemote(self, nbOfChannels, nbOfSamplesByChannel, buffer):
            got[-1].append(buffer)
            if sum(g[1][0] for g in got if g[1]) >= len(data):
                done.set()

    rec = Recorder(c, "PyRecorder")
    c.host("PyRecorder", rec)
    device = c.proxy("ZRAudioDevice")
    c.call("PyRecorder", "subscribe", "tester", 100, 0.5)
    assert device.getSubscribers() == ["PyRecorder"] and rec.is_started
    assert done.wait(STARTUP), "got %d buffers" % len(got)
    c.call("PyRecorder", "updatePeriod", "tester", 10)
    assert device.getSubscribers() == ["PyRecorder"]
    c.call("PyRecorder", "unsubscribe", "tester")
    assert device.getSubscribers() == [] and not rec.is_started
    assert numpy.array_equal(numpy.concatenate([g[0] for g in got]), data)
    frames = 0
    for samples, shape, dtype, writeable, zero_copy, ts, thread, sound, flag in got:
        assert (shape[1], dtype, writeable, zero_copy, sound, flag) == (
            3, numpy.int16, False, True, True, True)
        assert ts == pytest.approx(frames / 16000.0, abs=1e-6)
        assert "zr-io" not in thread
        frames += shape[0]
    assert [g[1][0] for g in got[:-1]] == [1600] * (len(got) - 1)
    # By hand: a buffer without samples reaches process as None; counts its bytes do not hold
    # are refused before anything reads them.
    del got[:]
    c.call("PyRecorder", "processRemote", 1, 4, [7, 250000], None)
    assert got[0][0] is None and got[0][7:] == [False, False]
    assert got[0][5] == pytest.approx(7.25, abs=1e-9)
    with pytest.raises(zr.ZRError) as e:
        c.call("PyRecorder", "processRemote", 2, 4, [0, 0], b"\x00" * 15)
    assert fields(e.value) == ("PyRecorder", "processRemote",
                               "a buffer of 15 bytes does not hold 2 x 4 16-bit samples")
    c.close()
    assert host.proc.poll() is None


def test_a_process_that_always_fails_is_reported_once_a_second(start_host, tmp_path, caplog):
    write_wav(tmp_path / "in.wav", numpy.zeros((16000 * 2, 1), numpy.int16))
    host = start_host("--memory", "--device", str(tmp_path / "in.wav"))
    calls, done = [], threading.Event()

    class Failing(zr.SoundExtractor):
        def process(self, samples, timestamp):
            calls.append(timestamp)
            if len(calls) == 20:
                done.set()
            raise ValueError("no good")

    with zr.connect(host.directory) as c:
        c.host("PyFailing", Failing(c, "PyFailing"))
        c.call("PyFailing", "subscribe", "tester")
        assert done.wait(STARTUP)  # every buffer came, failures or not
        c.call("PyFailing", "unsubscribe", "tester")
    reports = [r for r in caplog.records if "no good" in r.getMessage()]
    assert 1 <= len(reports) < 10
    assert "ValueError: no good" in caplog.text and "raise ValueError" in caplog.text


def test_hooks_never_overlap(start_host):
    host = start_host("--memory")
    c = zr.connect(host.directory)
    inside, log_ = [], []
    in_update, release, waiting = threading.Event(), threading.Event(), threading.Event()

    class Probe(zr.Extractor):
        def _enter(self, what):
            inside.append(what)
            log_.append((what, len(inside)))

        def x_start_detection(self, period, precision):
            self._enter("start")
            inside.pop()

        def x_update_parameters(self, period, precision):
            self._enter("update")
            in_update.set()
            release.wait(STARTUP)
            inside.pop()

        def x_stop_detection(self):
            self._enter("stop")
            inside.pop()

    probe = Probe(c, "PyOverlap")
    real = probe._hook_lock

    class Lock:
        def __enter__(self):
            if threading.current_thread().name == "stopper":
                waiting.set()
            return real.__enter__()

        def __exit__(self, *exc):
            return real.__exit__(*exc)

    probe._hook_lock = Lock()
    probe.subscribe("a", 100, 0.5)
    updater = threading.Thread(target=probe.updatePeriod, args=("a", 50))
    updater.start()
    assert in_update.wait(STARTUP)
    stopper = threading.Thread(target=probe.unsubscribe, args=("a",), name="stopper")
    stopper.start()
    assert waiting.wait(STARTUP)
    release.set()
    updater.join()
    stopper.join()
    assert log_ == [("start", 1), ("update", 1), ("stop", 1)]
    c.close()


def test_host_command_line(start_host, tmp_path):
    import subprocess
    import sys
    from conftest import ROOT

    host = start_host("--memory")
    env = {"PYTHONPATH": str(ROOT / "python"), "ZR_DIRECTORY": host.directory,
           "PYTHONDONTWRITEBYTECODE": "1"}

    def run(*args):
        return subprocess.run([sys.executable, "-m", "zr", *args], capture_output=True,
                              text=True, env=env, timeout=STARTUP)

    (tmp_path / "none.py").write_text("import zr\nclass NotOne:\n    pass\n")
    (tmp_path / "hookless.py").write_text("import zr\nclass Half(zr.Extractor):\n"
                                          "    def x_stop_detection(self):\n        pass\n")
    (tmp_path / "broken.py").write_text("import zr\nraise ValueError('no')\n")
    cases = [
        (["host", str(tmp_path / "missing.py")], 1, "missing.py: no such file"),
        (["host", str(tmp_path / "none.py")], 1, "defines no extractor class"),
        (["host", str(tmp_path / "hookless.py")], 1, "; Half lacks x_start_detection"),
        (["host", str(tmp_path / "broken.py")], 1, "broken.py: ValueError: no"),
        (["host", str(HERE / "probes.py"), "--name", "Nope=X"], 2,
         "defines no extractor class Nope (it has HookProbe, BoundedProbe, PlainSound)"),
        (["host", str(HERE / "probes.py"), "--name", "X"], 2, "defines 3 extractor classes"),
        (["host", str(HERE / "probes.py"), "--name", "HookProbe=PlainSound"], 2,
         "would both be the module PlainSound"),
        (["host", str(HERE / "probes.py"), "--directory", "tcp://127.0.0.1:1"], 3,
         "no directory answers at tcp://127.0.0.1:1"),
        (["host"], 2, "FILE.py"),
    ]
    for args, code, text in cases:
        r = run(*args)
        assert (r.returncode, text in r.stderr) == (code, True), (args, r.stderr)
    # One that serves: under its class names, until SIGTERM, then gone from the directory.
    py = start_host(str(HERE / "probes.py"), "--name", "BoundedProbe=Bounded", join=host.directory,
                    python=True)
    with zr.connect(host.directory) as c:
        assert {"HookProbe", "Bounded", "PlainSound"} <= {m["name"] for m in c.list()}
        assert c.call("Bounded", "getEventList") == []
        listed = zr_tool("list", "-f", "jsonl", directory=host.directory).stdout.splitlines()
        kinds = {m["name"]: m["kind"] for m in map(json.loads, listed)}
        assert (kinds["Bounded"], kinds["PlainSound"]) == ("extractor", "soundextractor")
        py.proc.send_signal(signal.SIGTERM)
        assert py.proc.wait(STARTUP) == 0
        assert any("stopped" in l for l in py.lines)
        wait_until(lambda: "Bounded" not in {m["name"] for m in c.list()}, what="unpublished")


def centroid_reference(block, rate):
    frames = block.shape[0]
    window = 0.5 - 0.5 * numpy.cos(2 * numpy.pi * numpy.arange(frames) / (frames - 1))
    spectrum = numpy.abs(numpy.fft.rfft(block.astype(numpy.float64) * window[:, None], axis=0))
    freqs = numpy.arange(spectrum.shape[0]) * rate / frames
    total = spectrum.sum(axis=0)
    return [float(freqs @ s / t) if t > 0 else 0.0 for s, t in zip(spectrum.T, total)]


def test_example_in_a_pipeline_with_the_cpp_device_and_sound_level(start_host, tmp_path):
    rate, frames = 16000, 16000 * 3
    t = numpy.arange(frames) / rate
    rng = numpy.random.default_rng(5)
    tone = 0.3 * numpy.sin(2 * numpy.pi * 1000 * t) + 0.01 * rng.standard_normal(frames)
    chirp = 0.4 * numpy.sin(2 * numpy.pi * (200 * t + 2800 / 6 * t * t))
    data = numpy.round(numpy.stack([tone, chirp], axis=1) * 32767).astype(numpy.int16)
    data[16000:17600, 1] = 0  # one silent buffer: centroid 0, level at the floor
    write_wav(tmp_path / "in.wav", data)
    host = start_host("--memory", "--device", str(tmp_path / "in.wav"), "-e", "SoundLevel")
    example = HERE.parents[1] / "examples" / "python" / "centroid.py"
    start_host(str(example), join=host.directory, python=True)
    run = zr_tool("run", "--directory", host.directory, "-e", "SoundLevel", "-e",
                  "SpectralCentroid", "-f", "jsonl", directory=host.directory)
    assert run.returncode == 0, run.stderr
    rows = [json.loads(l) for l in run.stdout.splitlines()]
    centroids = [r for r in rows if r["extractor"] == "SpectralCentroid"]
    levels = [r for r in rows if r["extractor"] == "SoundLevel" and r["event"] == "Levels"]
    assert len(centroids) == len(levels) == frames // 1600
    for i, (c, lv) in enumerate(zip(centroids, levels)):
        block = data[i * 1600:(i + 1) * 1600]
        assert c["event"] == "Centroid" and c["time"] == lv["time"] == round(i * 0.1, 3)
        assert c["centroid"] == pytest.approx(centroid_reference(block, rate), abs=0.006)
        x = block.astype(numpy.float64) / 32768
        with numpy.errstate(divide="ignore"):
            rms = numpy.maximum(20 * numpy.log10(numpy.sqrt((x * x).mean(axis=0))), -120)
            peak = numpy.maximum(20 * numpy.log10(numpy.abs(x).max(axis=0)), -120)
        assert lv["rms"] == pytest.approx(rms.tolist(), abs=0.006)
        assert lv["peak"] == pytest.approx(peak.tolist(), abs=0.006)
    assert centroids[10]["centroid"][1] == 0 and centroids[10]["centroid"][0] > 900
    # The extractor's outputs, as the memory service and the module itself list them.
    with zr.connect(host.directory) as c:
        assert c.call("SpectralCentroid", "getOutputNames") == ["SpectralCentroid/Centroid"]
        assert c.call("ZRMemory", "getExtractorEvent", "SpectralCentroid") == [
            "SpectralCentroid/Centroid"]
