#!/usr/bin/env python3
"""Scores SoundLocalization on simulated rooms with known talker directions.

Each condition is a shoebox room (5-9 by 4-7 by 2.7-3.4 m; random array placement, the array
turned by a random yaw; talkers 0.8-2 m away) simulated by the image-source method with
fractional delays, with a reverberation time of 0.3, 0.5 or 0.8 s (the walls' reflection
calibrated on a measured response), spherically diffuse pink noise at 20, 10 or 5 dB SNR (speech power at
the mics over its active frames against the noise's), and one of three scenes:

  static   one talker at a fixed place, speaking with pauses
  moving   one talker walking to and fro on an arc around the array (up to about 25 deg/s)
  two      two talkers at least 45 deg apart, speaking at the same time most of the time

for each of the three arrays circular4-r32mm, circular6-r46mm and linear4-d40mm. Speech comes
from recorded prompts and espeak-ng (see speech.py), in two sets that share no voice: the
extractor was tuned on "tuning"; "heldout" gives the figures we report. Each mix runs through the
real build:

  zr run MIX --extractor SoundLocalization --array SHAPE --format jsonl [--precision P]

and is scored per period of 100 ms. A talker is active in a period when its dry speech is active
(within 35 dB of its utterance's loud part, pauses under 300 ms bridged) for half of it; a period
is silent when no talker was active in it or in the 500 ms before (the room's reverberation and a
source's hold are not silence). Metrics, pooled over all conditions:

  median error  over talker-periods, of the azimuth distance to the nearest reported source
                (none reported: infinite); a line array's is the angle from its axis
  within 10     share of talker-periods with a source within 10 deg
  detection     share of talker-periods with a source within 20 deg
  both          share of periods with two active talkers where both are detected
  precision     share of reported sources (in periods that are not silent) within 20 deg of a
                talker active in the period or in the 500 ms before
  false         share of silent periods with any source reported

  tools/loceval/loceval.py [--zr build/tools/zr/zr] [--set heldout|tuning] [--precision P]
"""

import argparse
import hashlib
import json
import math
import os
import re
import subprocess
import sys
import tempfile
import wave
from concurrent.futures import ProcessPoolExecutor

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import roomsim  # noqa: E402
import speech  # noqa: E402

RATE = speech.RATE
PERIOD = 0.1
ARRAYS = ["circular4-r32mm", "circular6-r46mm", "linear4-d40mm"]
RT60S = [0.3, 0.5, 0.8]
SNRS = [20, 10, 5]
SCENES = ["static", "moving", "two"]
LEAD = 2.0  # seconds of noise alone before anyone speaks
SILENCE_MARGIN = 0.5
TARGETS = {"median": 2.0, "within10": 0.93, "detection": 0.95, "both": 0.92, "precision": 0.85,
           "false": 0.03, "within10_5dB": 0.88}
VERSION = 5  # of the simulation: bump to refresh cached mixes


def array_mics(shape):
    m = re.fullmatch(r"(circular|linear)(\d+)-[rd]([\d.]+)mm", shape)
    count, size = int(m.group(2)), float(m.group(3)) / 1000
    if m.group(1) == "circular":
        a = 2 * math.pi * np.arange(count) / count
        return np.stack([size * np.cos(a), size * np.sin(a), np.zeros(count)], axis=1)
    return np.stack([size * (np.arange(count) - (count - 1) / 2), np.zeros(count),
                     np.zeros(count)], axis=1)


def angle_of(shape, u):
    """The azimuth the extractor should report for direction u (array frame)."""
    if shape.startswith("linear"):
        return math.degrees(math.acos(max(-1.0, min(1.0, u[0]))))
    return math.degrees(math.atan2(u[1], u[0]))


def azimuth_error(shape, a, b):
    if shape.startswith("linear"):
        return abs(a - b)
    return abs((a - b + 180.0) % 360.0 - 180.0)


def place(rng, dims, centre, distance, azimuth, height):
    p = np.array([centre[0] + distance * math.cos(azimuth),
                  centre[1] + distance * math.sin(azimuth), height])
    p[:2] = np.clip(p[:2], 0.4, np.array(dims[:2]) - 0.4)
    return p


def simulate(condition, prompts, cache):
    """Mix (mics, samples) in [-1, 1), and per talker: per-10-ms activity and azimuth."""
    shape, rt60, snr, scene, seed = condition
    rng = np.random.default_rng(seed)
    dims = (rng.uniform(5.0, 9.0), rng.uniform(4.0, 7.0), rng.uniform(2.7, 3.4))
    centre = np.array([rng.uniform(1.5, dims[0] - 1.5), rng.uniform(1.5, dims[1] - 1.5),
                       rng.uniform(0.8, 1.2)])
    yaw = rng.uniform(-math.pi, math.pi)
    local = array_mics(shape)
    c, s = math.cos(yaw), math.sin(yaw)
    mics = np.stack([centre + [c * m[0] - s * m[1], s * m[0] + c * m[1], m[2]] for m in local])
    # The walls' reflection, so that the room decays in rt60 (measured, as T20).
    beta = roomsim.calibrated_reflection(dims, rt60, centre + [1.5, 0.5, 0.3], centre, RATE)
    seconds = 22.0
    pauses = (0.3, 1.2) if scene == "two" else (0.7, 2.0)
    talkers = []
    first = rng.uniform(-math.pi, math.pi)
    for t in range(2 if scene == "two" else 1):
        x, act = speech.track(rng, prompts, cache, seconds, LEAD + 0.5 * t, pauses)
        height = rng.uniform(1.2, 1.7)
        distance = rng.uniform(0.8, 2.0)
        if t == 0:
            az = first
        else:  # at least 45 deg from the first, also as a line array sees them
            while True:
                az = rng.uniform(-math.pi, math.pi)
                p0, p1 = (roomsim.direction_to(centre, yaw, place(rng, dims, centre, 1.0, a, 1.4))
                          for a in (first, az))
                if azimuth_error(shape, angle_of(shape, p0), angle_of(shape, p1)) >= 45:
                    break
        if scene == "moving":
            swing, period = math.radians(rng.uniform(45, 70)), rng.uniform(14, 20)

            def path(time, az=az, swing=swing, period=period, distance=distance, height=height):
                a = az + swing * math.sin(2 * math.pi * time / period)
                return place(rng, dims, centre, distance + 0.2 * math.sin(time / 3), a, height)
            wet = roomsim.moving_source(x, dims, path, mics, rt60, RATE, beta=beta)
        else:
            pos = place(rng, dims, centre, distance, az, height)
            wet = roomsim.static_source(x, dims, pos, mics, rt60, RATE, beta=beta)
            path = (lambda time, pos=pos: pos)
        frames = len(act)
        times = (np.arange(frames) + 0.5) * speech.FRAME / RATE
        azimuths = np.array([angle_of(shape, roomsim.direction_to(centre, yaw, path(tm)))
                             for tm in times])
        talkers.append((wet, act, azimuths))
    n = min(w.shape[1] for w, _, _ in talkers)
    mix = sum(w[:, :n] for w, _, _ in talkers)
    active = np.zeros(n // speech.FRAME, bool)
    for _, act, _ in talkers:
        active[: len(act)] |= act[: len(active)]
    frames = np.repeat(active, speech.FRAME)[: n]
    speech_power = np.mean(mix[:, : len(frames)][:, frames] ** 2)
    noise = roomsim.diffuse_noise(rng, n, mics, RATE)
    noise *= math.sqrt(speech_power / np.mean(noise ** 2) / 10 ** (snr / 10))
    sensor = rng.standard_normal(mix.shape) * math.sqrt(speech_power) * 10 ** (-50 / 20)
    mix = mix + noise + sensor
    mix *= 10 ** (-26 / 20) / math.sqrt(speech_power)  # speech at -26 dBFS
    peak = np.abs(mix).max()
    if peak > 0.99:
        mix *= 0.99 / peak
    return mix, [(act, az) for _, act, az in talkers]


def write_wav(path, x):
    data = np.clip(np.round(x.T * 32768), -32768, 32767).astype("<i2")
    with wave.open(path, "wb") as w:
        w.setnchannels(x.shape[0])
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(data.tobytes())


def prepare(args):
    """Simulates one condition into the cache unless it is there; returns its paths."""
    condition, prompts, cache = args
    key = hashlib.sha1(repr((VERSION, condition, prompts)).encode()).hexdigest()[:16]
    wav, truth = os.path.join(cache, key + ".wav"), os.path.join(cache, key + ".json")
    if not (os.path.exists(wav) and os.path.exists(truth)):
        mix, talkers = simulate(condition, prompts, cache)
        write_wav(wav + ".tmp", mix)
        os.replace(wav + ".tmp", wav)
        with open(truth, "w") as f:
            json.dump([{"active": a.tolist(), "azimuth": az.tolist()} for a, az in talkers], f)
    return wav, truth


def localise(zr, wav, shape, precision):
    cmd = [zr, "run", wav, "--extractor", "SoundLocalization", "--array", shape,
           "--format", "jsonl"]
    if precision is not None:
        cmd += ["--precision", str(precision)]
    out = subprocess.run(cmd, capture_output=True, text=True)
    if out.returncode != 0:
        sys.exit("loceval: %s failed: %s" % (" ".join(cmd), out.stderr.strip()))
    periods = {}
    for line in out.stdout.splitlines():
        r = json.loads(line)
        if r.get("event") == "Sources":
            periods[int(round(r["time"] / PERIOD))] = [s["azimuth"] for s in r["sources"]]
    return periods


def score(shape, periods, truth):
    """Counts for one condition (summed over conditions by the caller)."""
    per = int(round(PERIOD * RATE / speech.FRAME))  # 10 ms frames per period
    margin = int(round(SILENCE_MARGIN / PERIOD))
    count = min(len(t["active"]) for t in truth) // per
    talkers = []
    for t in truth:
        act = np.array(t["active"][: count * per]).reshape(count, per)
        az = np.array(t["azimuth"][: count * per]).reshape(count, per)
        talkers.append((act.mean(axis=1) >= 0.5, az.mean(axis=1) if shape.startswith("linear")
                        else np.degrees(np.angle(np.exp(1j * np.radians(az)).mean(axis=1)))))
    c = {"errors": [], "both": 0, "both_total": 0, "reported": 0, "correct": 0, "silent": 0,
         "false": 0}
    for k in range(count):
        found = periods.get(k, [])
        active = [i for i, (a, _) in enumerate(talkers) if a[k]]
        recent = [i for i, (a, _) in enumerate(talkers) if a[max(0, k - margin):k + 1].any()]
        if not recent:
            c["silent"] += 1
            c["false"] += bool(found)
            continue
        hits = 0
        for i in active:
            e = min((azimuth_error(shape, f, talkers[i][1][k]) for f in found), default=math.inf)
            c["errors"].append(e)
            hits += e <= 20
        if len(active) == 2:
            c["both_total"] += 1
            c["both"] += hits == 2
        for f in found:
            c["reported"] += 1
            c["correct"] += any(azimuth_error(shape, f, talkers[i][1][max(0, j)]) <= 20
                                for i in recent for j in range(k - margin, k + 1)
                                if talkers[i][0][max(0, j)])
    return c


def merge(counts):
    out = {"errors": [], "both": 0, "both_total": 0, "reported": 0, "correct": 0, "silent": 0,
           "false": 0}
    for c in counts:
        for k in out:
            out[k] = out[k] + c[k]
    return out


def metrics(c):
    e = np.array(c["errors"]) if c["errors"] else np.array([math.inf])
    return {"median": float(np.median(e)), "within10": float(np.mean(e <= 10)),
            "detection": float(np.mean(e <= 20)),
            "both": c["both"] / c["both_total"] if c["both_total"] else math.nan,
            "precision": c["correct"] / c["reported"] if c["reported"] else math.nan,
            "false": c["false"] / c["silent"] if c["silent"] else math.nan}


def row(label, m):
    pct = lambda v: "-" if math.isnan(v) else "%.1f %%" % (100 * v)  # noqa: E731
    return "| %s | %.2f deg | %s | %s | %s | %s | %s |" % (
        label, m["median"], pct(m["within10"]), pct(m["detection"]), pct(m["both"]),
        pct(m["precision"]), pct(m["false"]))


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    here = os.path.dirname(os.path.abspath(__file__))
    ap.add_argument("--zr", default=os.path.join(here, "..", "..", "build", "tools", "zr", "zr"))
    ap.add_argument("--set", choices=["tuning", "heldout"], default="heldout")
    ap.add_argument("--precision", type=float, default=None)
    ap.add_argument("--seed", type=int, default=27)
    ap.add_argument("--arrays", nargs="*", default=ARRAYS)
    ap.add_argument("--scenes", nargs="*", default=SCENES)
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--cache", default=os.path.join(tempfile.gettempdir(), "zr-loceval"))
    ap.add_argument("--verbose", action="store_true", help="a line per condition on stderr")
    ap.add_argument("--simulate-only", action="store_true",
                    help="only simulate the mixes into the cache")
    a = ap.parse_args()
    if not a.simulate_only and not os.access(a.zr, os.X_OK):
        sys.exit("loceval: no zr at %s: build it first (cmake --build build --target zr)" % a.zr)
    speech.install()
    os.makedirs(a.cache, exist_ok=True)
    prompts = speech.material(a.set, a.cache)
    # The two sets differ in their rooms and placements too.
    base = a.seed * 1000 + (0 if a.set == "tuning" else 500)
    everything = [(s, r, n, c) for s in ARRAYS for r in RT60S for n in SNRS for c in SCENES]
    conditions = [(shape, rt60, snr, scene, base + everything.index((shape, rt60, snr, scene)))
                  for shape in a.arrays for rt60 in RT60S for snr in SNRS for scene in a.scenes]
    with ProcessPoolExecutor(a.jobs) as pool:
        paths = list(pool.map(prepare, [(c, prompts, a.cache) for c in conditions]))
    if a.simulate_only:
        return 0
    results = []
    for condition, (wav, truth) in zip(conditions, paths):
        with open(truth) as f:
            t = json.load(f)
        c = score(condition[0], localise(a.zr, wav, condition[0], a.precision), t)
        results.append((condition, c))
        if a.verbose:
            print("%-16s RT60 %.1f  %2d dB  %-6s  %s" % (condition[:4] + (row("", metrics(c)),)),
                  file=sys.stderr)
    pooled = metrics(merge(c for _, c in results))
    at5 = metrics(merge(c for cond, c in results if cond[2] == 5))
    print("SoundLocalization on the '%s' set (%d conditions, precision %s)\n"
          % (a.set, len(results), "default" if a.precision is None else a.precision))
    print("| conditions | median error | within 10 deg | detection | both talkers | precision "
          "| false in silence |")
    print("|---|---|---|---|---|---|---|")
    print(row("**all**", pooled))
    for label, pick in ([("%d dB SNR" % s, lambda c, s=s: c[2] == s) for s in SNRS]
                        + [("RT60 %.1f s" % r, lambda c, r=r: c[1] == r) for r in RT60S]
                        + [(s, lambda c, s=s: c[0] == s) for s in a.arrays]
                        + [(s, lambda c, s=s: c[3] == s) for s in a.scenes]):
        print(row(label, metrics(merge(c for cond, c in results if pick(cond)))))
    checks = [("median error <= 2 deg", pooled["median"] <= TARGETS["median"]),
              ("within 10 deg >= 93 %", pooled["within10"] >= TARGETS["within10"]),
              ("detection >= 95 %", pooled["detection"] >= TARGETS["detection"]),
              ("both talkers >= 92 %", pooled["both"] >= TARGETS["both"]),
              ("precision >= 85 %", pooled["precision"] >= TARGETS["precision"]),
              ("false in silence <= 3 %", pooled["false"] <= TARGETS["false"]),
              ("within 10 deg at 5 dB >= 88 %", at5["within10"] >= TARGETS["within10_5dB"])]
    print("\ntargets: " + ", ".join("%s %s" % (n, "met" if ok else "MISSED") for n, ok in checks))
    return 0 if all(ok for _, ok in checks) else 1


if __name__ == "__main__":
    sys.exit(main())
