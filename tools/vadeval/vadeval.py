#!/usr/bin/env python3
"""Scores VoiceActivity on real recorded voices mixed with noise at known signal-to-noise ratios.

Material comes from Debian packages (installed with apt-get when missing): recorded telephone
prompts of four voices, desktop event sounds, and espeak-ng. It is split in two sets that share
no voice and no event sound:

  tuning   Spanish (Mexico, female) and French (female) prompts, espeak-ng voices, Oxygen events
  heldout  Italian (male) and Spanish (Colombia) prompts, Yaru and GNOME events

The detector's constants and default precision were chosen on "tuning" only; "heldout" gives the
figures we report. For each set a speech track is laid out from randomly chosen prompts with
pauses between them; the truth is where the clean prompt is speech (frames within 35 dB of the
prompt's loud part, gaps under 300 ms bridged, as the detector bridges them). The track is mixed
with white, pink or brown noise, babble of other voices of the same set, desktop event sounds, or
pink noise whose level rises by 30 dB across the track, at each SNR (speech power over its active
frames against the noise's mean power). Each mix runs through the real build:

  zr run MIX --extractor VoiceActivity --format jsonl [--precision P]

and is scored by frame F1 (10 ms frames) and boundary error: the median over true segments of the
mean distance of their start and end to those of the detected segment overlapping them most (a
detection that merges several true segments counts against each; F1 counts it too).

  tools/vadeval/vadeval.py [--zr build/tools/zr/zr] [--set heldout] [--precision P ...]
"""

import argparse
import array
import json
import math
import os
import random
import shutil
import subprocess
import sys
import tempfile
import wave
import zlib

RATE = 16000
FRAME = RATE // 100  # 10 ms
PACKAGES = [
    "sox", "espeak-ng",
    "asterisk-core-sounds-es-wav", "asterisk-core-sounds-it-wav",
    "asterisk-prompt-fr-armelle", "asterisk-prompt-es-co",
    "oxygen-sounds", "yaru-theme-sound", "gnome-audio",
]
SOUNDS = "/usr/share/asterisk/sounds"
ESPEAK_LINES = [
    ("en-us", "Robots listen to the world around them and tell us what they hear."),
    ("en-gb", "Please leave your message after the tone, then press the hash key."),
    ("de", "Guten Morgen, heute ist es sonnig und warm in der ganzen Stadt."),
    ("nl", "Het regent al de hele dag, maar morgen wordt het beter."),
    ("pt", "O comboio para Lisboa parte da linha dois dentro de cinco minutos."),
    ("en-us+f3", "The meeting has moved to the large room on the third floor."),
    ("de+f2", "Bitte schliessen Sie die Tuer, wenn Sie den Raum verlassen."),
    ("en-gb+m3", "Numbers one to ten: one, two, three, four, five, six, seven, eight."),
]
KINDS = ["white", "pink", "brown", "babble", "events", "rising"]
SNRS = [20, 10, 5, 0]


def die(message):
    sys.exit("vadeval: " + message)


def install_material():
    missing = [p for p in PACKAGES
               if subprocess.run(["dpkg-query", "-W", "-f=${Status}", p], capture_output=True,
                                 text=True).stdout.find("install ok installed") < 0]
    if not missing:
        return
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    print("vadeval: installing " + " ".join(missing), file=sys.stderr)
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    subprocess.run(sudo + ["apt-get", "install", "-y", "-qq", "--no-install-recommends"] + missing,
                   check=True, env=env, stdout=subprocess.DEVNULL)


def files(folder, extensions):
    if not os.path.isdir(folder):
        return []
    return sorted(os.path.join(folder, f) for f in os.listdir(folder)
                  if f.rsplit(".", 1)[-1] in extensions)


def decode(path, cache):
    """Mono 16 kHz floats in [-1, 1), through sox, cached."""
    key = os.path.join(cache, path.replace("/", "_") + ".raw")
    if not os.path.exists(key):
        subprocess.run(["sox", "-D", "-V1", path, "-r", str(RATE), "-c", "1", "-b", "16",
                        "-e", "signed-integer", "-t", "raw", key], check=True)
    data = array.array("h")
    with open(key, "rb") as f:
        data.frombytes(f.read())
    return [s / 32768.0 for s in data]


def espeak(voice, text, cache):
    path = os.path.join(cache, "espeak-%s-%d.wav" % (voice.replace("+", "_"), zlib.crc32(text.encode())))
    if not os.path.exists(path):
        subprocess.run(["espeak-ng", "-v", voice, "-s", "150", "-w", path, text], check=True)
    return decode(path, cache)


def material(which, cache):
    if which in ("tuning", "tune"):
        prompts = files(SOUNDS + "/es_MX_f_Allison", {"wav"}) + files(SOUNDS + "/fr", {"gsm", "wav"})
        extra = [espeak(v, t, cache) for v, t in ESPEAK_LINES]
        events = files("/usr/share/sounds", {"ogg"})
    else:
        prompts = files(SOUNDS + "/it_IT_m_Carlo", {"wav"}) + files(SOUNDS + "/es", {"gsm", "wav"})
        extra = []
        events = (files("/usr/share/sounds/Yaru/stereo", {"oga"}) + files("/usr/share/sounds", {"wav"})
                  + files("/usr/share/sounds/gtk-events", {"wav"}))
    if not prompts or not events:
        die("material for '%s' is missing (apt-get install %s)" % (which, " ".join(PACKAGES)))
    return prompts, extra, events


def frame_db(x):
    out = []
    for i in range(0, len(x) - FRAME + 1, FRAME):
        e = sum(v * v for v in x[i:i + FRAME]) / FRAME
        out.append(10 * math.log10(e) if e > 1e-12 else -120.0)
    return out


def speech_frames(x):
    """Per 10 ms frame, whether the clean recording is speech there."""
    db = frame_db(x)
    if not db:
        return []
    loud = sorted(db)[int(0.95 * (len(db) - 1))]
    active = [d > loud - 35 and d > -60 for d in db]
    last = None
    for i, a in enumerate(active):
        if a:
            if last is not None and 0 < i - last - 1 < 30:
                for j in range(last + 1, i):
                    active[j] = True
            last = i
    return active


def trimmed(x):
    """The prompt without its leading and trailing silence, and its truth."""
    act = speech_frames(x)
    if not any(act):
        return None, None
    first = act.index(True)
    last = len(act) - 1 - act[::-1].index(True)
    return x[first * FRAME:(last + 1) * FRAME], act[first:last + 1]


def speech_track(rng, prompts, extra, cache, seconds):
    track, truth = [], []
    pool = prompts[:]
    rng.shuffle(pool)
    extras = extra[:]
    while len(track) < seconds * RATE:
        gap = int(rng.uniform(0.7, 2.0) * 100)
        track += [0.0] * gap * FRAME
        truth += [False] * gap
        x = extras.pop() if extras and rng.random() < 0.4 else decode(pool.pop(), cache)
        x, act = trimmed(x)
        if x is None:
            continue
        gain = 10 ** (rng.uniform(-6, 0) / 20)  # voices at different levels
        track += [v * gain for v in x]
        truth += act
    gap = 100
    track += [0.0] * gap * FRAME
    truth += [False] * gap
    return track, truth, pool


def power(x):
    return sum(v * v for v in x) / max(1, len(x))


def coloured(rng, n, kind):
    out = [0.0] * n
    if kind == "white":
        for i in range(n):
            out[i] = rng.gauss(0, 1)
    elif kind == "pink":  # Paul Kellet's economy filter
        b0 = b1 = b2 = 0.0
        for i in range(n):
            w = rng.gauss(0, 1)
            b0 = 0.99765 * b0 + w * 0.0990460
            b1 = 0.96300 * b1 + w * 0.2965164
            b2 = 0.57000 * b2 + w * 1.0526913
            out[i] = b0 + b1 + b2 + w * 0.1848
    else:  # brown: leaky integration of white
        b = 0.0
        for i in range(n):
            b = 0.998 * b + rng.gauss(0, 1)
            out[i] = b
    return out


def noise(rng, kind, n, pool, events, cache):
    if kind in ("white", "pink", "brown"):
        return coloured(rng, n, kind)
    if kind == "rising":  # 30 dB over the track, in dB steps per 10 ms
        x = coloured(rng, n, "pink")
        for i in range(n):
            x[i] *= 10 ** ((-15 + 30 * i / n) / 20)
        return x
    if kind == "babble":  # six other talkers at once, each talking without pause
        x = [0.0] * n
        for _ in range(6):
            pos = 0
            while pos < n and pool:
                v, _ = trimmed(decode(pool.pop(), cache))
                if v is None:
                    continue
                g = 1.0 / math.sqrt(power(v) + 1e-12)
                for j, s in enumerate(v[:n - pos]):
                    x[pos + j] += g * s
                pos += len(v)
        return x
    # events: desktop sounds every 1.5-4 s, over speech and pauses alike, each at the same level
    x = [0.0] * n
    pos = int(rng.uniform(0.2, 1.5) * RATE)
    while pos < n:
        v = decode(rng.choice(events), cache)[:3 * RATE]
        g = 1.0 / math.sqrt(power(v) + 1e-12)
        for j, s in enumerate(v[:n - pos]):
            x[pos + j] += g * s
        pos += len(v) + int(rng.uniform(1.5, 4.0) * RATE)
    return x


def write_wav(path, x):
    data = array.array("h", (max(-32768, min(32767, int(round(v * 32768)))) for v in x))
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(data.tobytes())


def detect(zr, path, precision):
    cmd = [zr, "run", path, "--extractor", "VoiceActivity", "--format", "jsonl"]
    if precision is not None:
        cmd += ["--precision", str(precision)]
    out = subprocess.run(cmd, capture_output=True, text=True)
    if out.returncode != 0:
        die("%s failed: %s" % (" ".join(cmd), out.stderr.strip()))
    segments = []
    for line in out.stdout.splitlines():
        r = json.loads(line)
        if r.get("event") == "Segment":
            segments.append((r["start"], r["end"]))
    return segments


def segments_of(frames):
    out, start = [], None
    for i, a in enumerate(frames + [False]):
        if a and start is None:
            start = i
        elif not a and start is not None:
            out.append((start / 100.0, i / 100.0))
            start = None
    return out


def score(truth, found):
    n = len(truth)
    hyp = [False] * n
    for s, e in found:
        for i in range(max(0, int(round(s * 100))), min(n, int(round(e * 100)))):
            hyp[i] = True
    tp = sum(1 for t, h in zip(truth, hyp) if t and h)
    fp = sum(1 for t, h in zip(truth, hyp) if h and not t)
    fn = sum(1 for t, h in zip(truth, hyp) if t and not h)
    f1 = 2 * tp / (2 * tp + fp + fn) if tp else 0.0
    errors = []
    for s, e in segments_of(truth):
        best = max(found, key=lambda d: min(e, d[1]) - max(s, d[0]), default=None)
        if best and min(e, best[1]) > max(s, best[0]):
            errors.append((abs(best[0] - s) + abs(best[1] - e)) / 2)
    errors.sort()
    return f1, (1000 * errors[len(errors) // 2] if errors else float("nan"))


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    here = os.path.dirname(os.path.abspath(__file__))
    ap.add_argument("--zr", default=os.path.join(here, "..", "..", "build", "tools", "zr", "zr"))
    ap.add_argument("--set", choices=["tuning", "tune", "heldout"], default="heldout",
                    help="tuning (also: tune) or heldout")
    ap.add_argument("--precision", type=float, nargs="*", default=[None],
                    help="precisions to score (default: the extractor's own default)")
    ap.add_argument("--seconds", type=float, default=90, help="length of each speech track")
    ap.add_argument("--seed", type=int, default=17)
    ap.add_argument("--kinds", nargs="*", default=KINDS)
    ap.add_argument("--cache", default=os.path.join(tempfile.gettempdir(), "zr-vadeval"))
    a = ap.parse_args()
    if not os.access(a.zr, os.X_OK):
        die("no zr at %s: build it first (cmake --build build --target zr)" % a.zr)
    install_material()
    os.makedirs(a.cache, exist_ok=True)
    rng = random.Random(a.seed)
    prompts, extra, events = material(a.set, a.cache)
    speech, truth, pool = speech_track(rng, prompts, extra, a.cache, a.seconds)
    n = len(speech)
    active = [speech[i * FRAME:(i + 1) * FRAME] for i, t in enumerate(truth) if t]
    speech_power = sum(power(f) for f in active) / len(active)
    work = tempfile.mkdtemp(prefix="vadeval-")
    try:
        rows = []
        conditions = [("clean", None)] + [(k, s) for k in a.kinds for s in SNRS]
        for kind, snr in conditions:
            if kind == "clean":
                mix = [v + 1e-4 * rng.gauss(0, 1) for v in speech]  # a quiet studio's hiss
            else:
                x = noise(rng, kind, n, pool[:], events, a.cache)
                g = math.sqrt(speech_power / (power(x) + 1e-20) / 10 ** (snr / 10))
                mix = [s + g * v for s, v in zip(speech, x)]
            peak = max(abs(v) for v in mix)
            if peak > 0.99:  # keep it unclipped; SNR is unchanged
                mix = [v * 0.99 / peak for v in mix]
            path = os.path.join(work, "%s-%s.wav" % (kind, snr))
            write_wav(path, mix)
            for p in a.precision:
                f1, err = score(truth, detect(a.zr, path, p))
                rows.append((kind, snr, p, f1, err))
                print("%-7s %5s dB  precision %-7s  F1 %.3f  boundary %5.0f ms"
                      % (kind, "-" if snr is None else snr, "default" if p is None else p, f1, err),
                      file=sys.stderr)
        print("\nVoiceActivity on the '%s' set (%.0f s of speech track, seed %d)\n" % (a.set, n / RATE, a.seed))
        for p in a.precision:
            print("precision: %s\n" % ("default" if p is None else p))
            print("| noise | " + " | ".join("%s dB" % s for s in SNRS) + " |")
            print("|---|" + "---|" * len(SNRS))
            for kind, snr, q, f1, err in rows:
                if q == p and kind == "clean":
                    print("| clean | F1 %.3f, %.0f ms |" % (f1, err) + " |" * (len(SNRS) - 1))
            for kind in a.kinds:
                cells = ["%.3f, %.0f ms" % (f1, err) for k, s, q, f1, err in rows if q == p and k == kind]
                print("| %s | %s |" % (kind, " | ".join(cells)))
            at = {s: [f1 for k, t, q, f1, _ in rows if q == p and t == s] for s in SNRS}
            print("| mean | " + " | ".join("%.3f" % (sum(v) / len(v)) for v in at.values()) + " |\n")
        print("cells: frame F1, median boundary error")
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
