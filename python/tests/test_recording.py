"""zr.Recording against files of the reference MCAP writer (node, mcap_writer.cjs) in the layout
zr records: what it reads, what it recovers of a cut file, and that damage is an error."""

import base64
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess

import numpy as np
import pytest

import zr
from conftest import ROOT

NPM = pathlib.Path(os.environ.get("ZR_NPM_DIR", str(ROOT / "build" / "npm"))) / "node_modules"
WRITER = pathlib.Path(__file__).with_name("mcap_writer.cjs")
T0 = 1_700_000_000_123_456_789  # ns
RATE, CHANNELS, FRAMES, BLOCKS = 16000, 2, 160, 60
GAP_AFTER, LOST = 20, 480  # the block after GAP_AFTER starts LOST samples late
SOUND, LEVELS, COUNT, GAP = ("ZRAudioDevice/Sound", "SoundLevel/Levels", "Counter/Count",
                             "ZRAudioDevice/Gap")
VARIANTS = {  # name: how the reference writer lays the file out
    "zstd": dict(chunked=True, compression="zstd", chunkSize=8192),
    "lz4": dict(chunked=True, compression="lz4", chunkSize=8192),
    "chunks": dict(chunked=True, compression="", chunkSize=8192),
    "flat": dict(chunked=False, compression=""),
    "bare": dict(chunked=False, compression="", summary=False),
}


def layout():
    """Schemas, channels and messages of a short recording; also the blocks and events a reader
    should give back."""
    rng = np.random.default_rng(25)
    t = np.arange(BLOCKS * FRAMES)[:, None]
    wave = (8000 * np.sin(t * [0.05, 0.11]) + rng.integers(-300, 300, (len(t), 2)))
    wave = wave.astype("<i2")
    audio = json.dumps({"title": "foxglove.RawAudio", "type": "object"})
    schemas = [{"name": "foxglove.RawAudio", "encoding": "jsonschema", "data": audio}]
    channels = [{"schema": 0, "topic": SOUND, "messageEncoding": "json",
                 "metadata": {"zr.kind": "sound", "zr.module": "ZRAudioDevice"}}]
    for topic, value in ((LEVELS, "record"), (COUNT, "value"), (GAP, "record")):
        schemas.append({"name": topic, "encoding": "jsonschema", "data": '{"type":"object"}'})
        channels.append({"schema": len(schemas) - 1, "topic": topic, "messageEncoding": "json",
                         "metadata": {"zr.kind": "event", "zr.module": topic.split("/")[0],
                                      "zr.value": value}})
    messages, blocks, events, seq = [], [], [], {}

    def add(channel, log_time, body):
        messages.append({"channel": channel, "sequence": seq.setdefault(channel, 0),
                         "logTime": str(log_time), "publishTime": str(log_time + 7),
                         "data": json.dumps(body)})
        seq[channel] += 1

    for i in range(BLOCKS):
        sample = i * FRAMES + (LOST if i > GAP_AFTER else 0)
        when = T0 + sample * 10**9 // RATE
        pcm = wave[i * FRAMES:(i + 1) * FRAMES]
        if i == GAP_AFTER + 1:
            event = {"sample": sample - LOST, "lost": LOST, "reason": "overrun"}
            add(3, when, event)
            events.append(dict(event, topic=GAP, log_time=when))
        add(0, when, {"timestamp": {"sec": when // 10**9, "nsec": when % 10**9},
                      "format": "pcm-s16", "sample_rate": RATE, "number_of_channels": CHANNELS,
                      "sample": sample, "sequence": i,
                      "data": base64.b64encode(pcm.tobytes()).decode()})
        blocks.append((sample, i, when, pcm))
        if i % 5 == 4:
            event = {"time": sample / RATE, "rms": [-20.5 - i, -31.25], "peak": [-3.0, 0.1],
                     "window": {"frames": FRAMES, "shape": "hann"}}
            add(1, when, event)
            events.append(dict(event, topic=LEVELS, log_time=when))
        if i % 7 == 0:
            add(2, when, {"value": i})
            events.append({"value": i, "topic": COUNT, "log_time": when})
    return schemas, channels, messages, blocks, events


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    """name -> (path, bytes, per message the offset after which the reference reads it)."""
    node = shutil.which("node")
    if node is None:
        pytest.skip("node is absent: the reader is not checked against the reference writer")
    if not (NPM / "@mcap" / "core").is_dir() or not (NPM / "@mcap" / "support").is_dir():
        pytest.fail("the npm packages @mcap/core and @mcap/support are missing from %s: run "
                    "./setup.sh (or set ZR_NPM_DIR)" % NPM.parent)
    d = tmp_path_factory.mktemp("mcap")
    schemas, channels, messages, _, _ = layout()
    specs = [dict(v, path=str(d / (name + ".mcap")), schemas=schemas, channels=channels,
                  messages=messages, header={"profile": "", "library": "zr 9.9.9"})
             for name, v in VARIANTS.items()]
    run = subprocess.run([node, str(WRITER), str(NPM)], input=json.dumps({"files": specs}),
                         capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stderr
    return {name: (s["path"], pathlib.Path(s["path"]).read_bytes(), r["ends"])
            for name, s, r in zip(VARIANTS, specs, json.loads(run.stdout))}


def everything(rec):
    """All a reader gives of a recording, each kind read in a pass of its own."""
    return (list(rec.messages()), list(rec.events()),
            [(b.sample, b.sequence, b.log_time, b.samples.tobytes()) for b in rec.sound()])


@pytest.mark.parametrize("variant", VARIANTS)
def test_reads_what_the_reference_wrote(files, variant):
    path, data, _ = files[variant]
    _, _, messages, blocks, events = layout()
    rec = zr.Recording(path)
    assert (rec.complete, rec.damage, rec.library, rec.profile) == (True, None, "zr 9.9.9", "")
    assert {t: (c.kind, c.module, c.schema, c.count) for t, c in rec.channels.items()} == {
        SOUND: ("sound", "ZRAudioDevice", "foxglove.RawAudio", BLOCKS),
        LEVELS: ("event", "SoundLevel", LEVELS, BLOCKS // 5),
        COUNT: ("event", "Counter", COUNT, (BLOCKS + 6) // 7),
        GAP: ("event", "ZRAudioDevice", GAP, 1)}
    assert rec.channels[COUNT].metadata["zr.value"] == "value"
    assert (rec.start_time, rec.end_time) == (int(messages[0]["logTime"]),
                                              int(messages[-1]["logTime"]))

    got = list(rec.messages())
    assert [(m.sequence, m.log_time, m.publish_time, m.data.decode()) for m in got] == [
        (m["sequence"], int(m["logTime"]), int(m["publishTime"]), m["data"]) for m in messages]
    assert list(rec.events()) == events
    assert list(rec.events([COUNT, GAP])) == [e for e in events if e["topic"] in (COUNT, GAP)]
    assert [m.topic for m in rec.messages(LEVELS)] == [LEVELS] * (BLOCKS // 5)

    sound = list(rec.sound())
    assert [(b.topic, b.sample, b.sequence, b.log_time, b.sample_rate, b.channels)
            for b in sound] == [(SOUND, s, q, w, RATE, CHANNELS) for s, q, w, _ in blocks]
    for b, (_, _, _, pcm) in zip(sound, blocks):
        assert b.samples.dtype == np.int16 and b.samples.shape == (FRAMES, CHANNELS)
        assert np.array_equal(b.samples, pcm)
    with pytest.raises(ValueError):
        sound[0].samples[0, 0] = 1

    whole = rec.sound_array()
    assert (whole.sample_rate, whole.start, whole.log_time) == (RATE, 0, T0)
    assert whole.gaps == [((GAP_AFTER + 1) * FRAMES, LOST)]
    assert whole.samples.shape == (BLOCKS * FRAMES + LOST, CHANNELS)
    cut = (GAP_AFTER + 1) * FRAMES
    assert not whole.samples[cut:cut + LOST].any()
    assert np.array_equal(np.delete(whole.samples, np.s_[cut:cut + LOST], axis=0),
                          np.concatenate([pcm for *_, pcm in blocks]))


def test_a_cut_file_gives_its_complete_records_and_says_where_it_was_cut(files, tmp_path):
    for variant in ("zstd", "lz4", "flat", "bare"):
        path, data, ends = files[variant]
        full = list(zr.Recording(path).messages())
        assert len({e for e in ends}) > 3, "the test wants several chunks"
        # Every tenth, and just before and at the end of a record that holds messages.
        for size in [len(data) * tenth // 10 for tenth in range(1, 10)] + [ends[9] - 1, ends[9]]:
            cut = tmp_path / ("%s-%d.mcap" % (variant, size))
            cut.write_bytes(data[:size])
            rec = zr.Recording(cut)
            readable = sum(1 for e in ends if e <= size)
            assert not rec.complete and "cut short at byte %d" % size in rec.damage, rec.damage
            assert rec.damage_offset <= size
            got = list(rec.messages())
            assert got == full[:readable], (variant, size)
            assert sum(c.count for c in rec.channels.values()) == readable
            blocks = sum(1 for m in got if m.topic == SOUND)
            assert len(list(rec.sound())) == blocks and len(list(rec.events())) == readable - blocks
    # A record that claims more than there is: read as the cut it looks like, without allocating.
    cut = tmp_path / "claims.mcap"
    cut.write_bytes(data[:ends[0]] + struct.pack("<BQ", 0x05, 1 << 62) + b"x" * 40)
    rec = zr.Recording(cut)
    assert len(list(rec.messages())) == 1 and "%d bytes at byte %d" % (1 << 62, ends[0]) in \
        rec.damage


def test_every_flipped_byte_is_an_error_naming_file_and_offset(files, tmp_path):
    rng = np.random.default_rng(7)
    for variant in ("zstd", "lz4", "bare"):
        path, data, _ = files[variant]
        full = everything(zr.Recording(path))
        closing = len(data) - 8
        for at in sorted(set(rng.integers(0, len(data), 120)) | {closing + 3}):
            flipped = bytearray(data)
            flipped[at] ^= int(rng.integers(1, 256))
            f = tmp_path / ("%s-%d.mcap" % (variant, at))
            f.write_bytes(flipped)
            try:
                rec = zr.Recording(f)
                got = everything(rec)
            except zr.RecordingError as e:
                assert str(e).startswith(str(f) + "::") and e.path == str(f), e
                assert e.offset is None or 0 <= e.offset < len(data), e
                continue
            # Only the closing magic is outside every CRC: then the file reads as cut after
            # its data, with everything in it.
            assert at >= closing, "byte %d of %s flipped unnoticed" % (at, variant)
            assert got == full and not rec.complete and rec.damage


def test_chunk_faults_are_named_at_their_chunk(files, tmp_path):
    path, data, _ = files["zstd"]
    first = zr.Recording(path)._mcap.chunk_indexes[0]
    at = first.chunk_start_offset
    body = at + 9
    f = tmp_path / "x.mcap"

    def fault(patch, offset):
        f.write_bytes(data[:offset] + patch + data[offset + len(patch):])
        with pytest.raises(zr.RecordingError) as e:
            list(zr.Recording(f).messages())
        assert e.value.offset == at
        return str(e.value)

    # A chunk whose decompressed records are not what its CRC says (the CRC field changed).
    crc = struct.unpack_from("<I", data, body + 24)[0]
    assert "CRC of the chunk" in fault(struct.pack("<I", crc ^ 1), body + 24)
    # One that claims far more than it holds: refused after decompressing what is there.
    assert "not the %d it declares" % (1 << 60) in fault(struct.pack("<Q", 1 << 60), body + 16)
    size = struct.unpack_from("<Q", data, body + 16)[0]
    assert "holds more bytes" in fault(struct.pack("<Q", size - 1), body + 16)
    assert "unknown chunk compression 'zstx'" in fault(b"zstx", body + 32)
    assert "cannot be decompressed" in fault(b"\0" * 8, body + 32 + 4 + 4 + 8)


def test_unknown_records_are_skipped_and_a_zero_crc_is_not_checked(files, tmp_path):
    path, data, _ = files["bare"]
    end = len(data) - 8 - 29 - 13  # the data end record, before footer and magic
    assert data[end] == 0x0F
    extra = struct.pack("<BQ", 0x80, 5) + b"12345"
    f = tmp_path / "extra.mcap"
    f.write_bytes(data[:end] + extra + data[end:end + 9] + b"\0\0\0\0" + data[end + 13:])
    assert everything(zr.Recording(f)) == everything(zr.Recording(path))
    f.write_bytes(data[:end] + extra + data[end:])  # the data CRC now does not match
    with pytest.raises(zr.RecordingError, match="CRC of its data section"):
        everything(zr.Recording(f))


def bad(tmp_path, name, content):
    f = tmp_path / (name + ".mcap")
    f.write_bytes(content)
    with pytest.raises(zr.RecordingError) as e:
        everything(zr.Recording(f))
    assert isinstance(e.value, zr.ZRError) and isinstance(e.value, ValueError)
    assert str(f) in str(e.value) and "at byte" in str(e.value), (name, str(e.value))


def test_what_is_not_mcap_is_a_clear_error(tmp_path):
    bad(tmp_path, "empty", b"")
    bad(tmp_path, "text", b"timestamp,level\n0.0,-20\n" * 10)
    bad(tmp_path, "wave", pathlib.Path(ROOT / "data" / "sample.wav").read_bytes()[:4096])
    with pytest.raises(zr.RecordingError, match="cannot be opened"):
        zr.Recording(tmp_path / "absent.mcap")


def test_a_damaged_start_and_unknown_topics_are_clear_errors(files, tmp_path):
    path, data, _ = files["zstd"]
    bad(tmp_path, "magic", data[:5])
    bad(tmp_path, "header", data[:20])
    bad(tmp_path, "zeros", data[:17 + struct.unpack_from("<Q", data, 9)[0]] + b"\0" * 64)
    rec = zr.Recording(path)
    with pytest.raises(zr.RecordingError, match=r'no event channel "ZRAudioDevice/Sound" \(it has: '
                       + COUNT):
        list(rec.events(SOUND))
    with pytest.raises(zr.RecordingError, match='no sound channel "Nope"'):
        list(rec.sound("Nope"))
    assert list(rec.events(["Counter/Count"]))[0]["value"] == 0


def test_the_pages_example_runs(files, tmp_path, monkeypatch, capsys):
    page = (ROOT / "docs" / "python.md").read_text()
    example = re.search(r"^## Recordings\n.*?```python\n(.*?)```", page, re.M | re.S).group(1)
    shutil.copy(files["zstd"][0], tmp_path / "session.mcap")
    monkeypatch.chdir(tmp_path)
    exec(compile(example, "docs/python.md", "exec"), {})
    out = capsys.readouterr().out.splitlines()
    assert out[0] == "%s sound %d" % (SOUND, BLOCKS)
    assert out[-1] == "%d (%d, %d) [(%d, %d)]" % (RATE, BLOCKS * FRAMES + LOST, CHANNELS,
                                                  (GAP_AFTER + 1) * FRAMES, LOST)


def test_reads_what_zr_run_recorded(tmp_path):
    from conftest import SAMPLE, ZR_BINARY
    path, results = tmp_path / "run.mcap", tmp_path / "run.jsonl"
    subprocess.run([ZR_BINARY, "run", SAMPLE, "-e", "SoundLevel", "-f", "jsonl", "-o", str(results),
                    "--inject-gap", "16000:800", "--record", str(path)], check=True)
    printed = [json.loads(line) for line in results.read_text().splitlines()]
    recording = zr.Recording(str(path))
    assert recording.complete
    assert recording.channels["ZRAudioDevice/Sound"].kind == "sound"
    levels = list(recording.events("SoundLevel/Levels"))
    assert [e["rms"] for e in levels] == [p["rms"] for p in printed if p["event"] == "Levels"]
    # Each result is stamped with the capture time of the buffer it was made from (a window of
    # SoundLevel's default period is one buffer).
    captured = {b.sample: b.log_time for b in recording.sound()}
    # (the last window, closed by the run's end rather than by sound, has no capture time)
    assert all(abs(e["log_time"] - captured[e["sample"]]) < 5_000_000 for e in levels[:-1])
    # Replayed and recorded again, the results keep the capture times of the first recording.
    again = tmp_path / "again.mcap"
    subprocess.run([ZR_BINARY, "run", str(path), "-e", "SoundLevel", "-o", os.devnull,
                    "--record", str(again)], check=True, stderr=subprocess.DEVNULL)
    times = {e["sample"]: e["log_time"] for e in levels}
    replayed = list(zr.Recording(str(again)).events("SoundLevel/Levels"))
    kept = sum(times.get(e["sample"]) == e["log_time"] for e in replayed)
    assert kept >= 0.9 * len(levels), (kept, len(levels))
    sound = recording.sound_array()
    assert sound.sample_rate == 16000 and sound.samples.shape[1] == 1
    assert list(sound.gaps) == [(16000, 800)]
    assert (sound.samples[16000:16800] == 0).all()
    # What the run heard is the file's own sound, sample for sample, around the gap.
    wav = np.frombuffer(pathlib.Path(SAMPLE).read_bytes()[44:], dtype="<i2")
    assert np.array_equal(sound.samples[:16000, 0], wav[:16000])
    assert np.array_equal(sound.samples[16800:32000, 0], wav[16800:32000])
