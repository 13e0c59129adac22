"""Speech for the localisation evaluation: recorded prompts from Debian packages and espeak-ng,
split into two sets that share no voice, laid out as talkers' tracks with pauses, and the truth
of when each talker speaks.

  tuning   Spanish (Mexico, female) and French (female) prompts, espeak-ng voices
  heldout  Italian (male) and Spanish (Colombia) prompts
"""

import os
import subprocess
import sys
import zlib

import numpy as np

RATE = 16000
FRAME = RATE // 100  # 10 ms
PACKAGES = ["sox", "espeak-ng", "asterisk-core-sounds-es-wav", "asterisk-core-sounds-it-wav",
            "asterisk-prompt-fr-armelle", "asterisk-prompt-es-co"]
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


def install():
    missing = [p for p in PACKAGES
               if "install ok installed" not in subprocess.run(
                   ["dpkg-query", "-W", "-f=${Status}", p], capture_output=True, text=True).stdout]
    if not missing:
        return
    sudo = [] if os.geteuid() == 0 else ["sudo"]
    print("loceval: installing " + " ".join(missing), file=sys.stderr)
    env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    subprocess.run(sudo + ["apt-get", "install", "-y", "-qq", "--no-install-recommends"] + missing,
                   check=True, env=env, stdout=subprocess.DEVNULL)


def _files(folder, extensions):
    if not os.path.isdir(folder):
        return []
    return sorted(os.path.join(folder, f) for f in os.listdir(folder)
                  if f.rsplit(".", 1)[-1] in extensions)


def decode(path, cache):
    """Mono 16 kHz floats through sox, cached."""
    key = os.path.join(cache, path.replace("/", "_") + ".raw")
    if not os.path.exists(key):
        subprocess.run(["sox", "-D", "-V1", path, "-r", str(RATE), "-c", "1", "-b", "16",
                        "-e", "signed-integer", "-t", "raw", key], check=True)
    return np.fromfile(key, dtype=np.int16).astype(float) / 32768.0


def _espeak(voice, text, cache):
    path = os.path.join(cache, "espeak-%s-%d.wav" % (voice.replace("+", "_"),
                                                      zlib.crc32(text.encode())))
    if not os.path.exists(path):
        subprocess.run(["espeak-ng", "-v", voice, "-s", "150", "-w", path, text], check=True)
    return path


def material(which, cache):
    """The prompt files of a set."""
    if which == "tuning":
        prompts = _files(SOUNDS + "/es_MX_f_Allison", {"wav"}) + _files(SOUNDS + "/fr", {"wav"})
        prompts += [_espeak(v, t, cache) for v, t in ESPEAK_LINES]
    else:
        prompts = _files(SOUNDS + "/it_IT_m_Carlo", {"wav"}) + _files(SOUNDS + "/es", {"wav"})
    if not prompts:
        sys.exit("loceval: material for '%s' is missing (apt-get install %s)"
                 % (which, " ".join(PACKAGES)))
    return prompts


def activity(x):
    """Per 10 ms frame, whether `x` (one utterance) is speech there: within 35 dB of its loud
    part, gaps under 300 ms bridged."""
    n = len(x) // FRAME
    e = (x[: n * FRAME].reshape(n, FRAME) ** 2).mean(axis=1)
    db = 10 * np.log10(np.maximum(e, 1e-12))
    if n == 0:
        return np.zeros(0, bool)
    loud = np.sort(db)[int(0.95 * (n - 1))]
    active = (db > loud - 35) & (db > -60)
    idx = np.flatnonzero(active)
    for a, b in zip(idx[:-1], idx[1:]):
        if 1 < b - a <= 30:
            active[a:b] = True
    return active


def utterance(path, cache, rng):
    """One prompt trimmed of its silence, at a random level, and its activity."""
    x = decode(path, cache)
    act = activity(x)
    if not act.any():
        return None, None
    first, last = np.flatnonzero(act)[[0, -1]]
    x = x[first * FRAME:(last + 1) * FRAME]
    x = x / (np.sqrt(np.mean(x ** 2)) + 1e-12) * 10 ** (rng.uniform(-4, 0) / 20)
    return x, act[first:last + 1]


def track(rng, pool, cache, seconds, lead, pauses):
    """A talker's track of `seconds` after `lead` seconds of silence: utterances drawn from
    `pool` with pauses drawn from `pauses` (lo, hi seconds). Returns samples and per-frame
    activity."""
    total = int((lead + seconds) * RATE)
    x = np.zeros(total)
    act = np.zeros(total // FRAME, bool)
    pos = int(lead * RATE)
    while pos < total - RATE:
        u, a = utterance(pool[rng.integers(len(pool))], cache, rng)
        if u is None:
            continue
        u, a = u[: total - pos], a[: (total - pos) // FRAME]
        x[pos:pos + len(u)] = u
        act[pos // FRAME:pos // FRAME + len(a)] = a
        pos += len(u) + int(rng.uniform(*pauses) * 100) * FRAME
    return x, act
