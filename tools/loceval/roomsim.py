"""Room acoustics for the localisation evaluation: shoebox rooms by the image-source method with
fractional delays, moving sources, and spherically diffuse noise at a microphone array.

Everything is numpy/scipy and deterministic given its random generator.
"""

import math

import numpy as np
from scipy.signal import fftconvolve

C = 343.0  # m/s, as the extractor assumes
TAPS = 16  # windowed-sinc fractional delay


def reflection(dims, rt60):
    """Wall reflection coefficient (the same for every wall) giving `rt60` by Eyring's formula."""
    lx, ly, lz = dims
    volume = lx * ly * lz
    surface = 2 * (lx * ly + lx * lz + ly * lz)
    alpha = 1.0 - math.exp(-0.161 * volume / (surface * rt60))
    return math.sqrt(1.0 - alpha)


def decay_time(h, rate):
    """RT60 of an impulse response, from the slope of its Schroeder curve between -5 and -25 dB."""
    energy = np.cumsum(h[::-1] ** 2)[::-1]
    db = 10 * np.log10(energy / energy[0] + 1e-30)
    return 3.0 * (np.argmax(db < -25) - np.argmax(db < -5)) / rate


def calibrated_reflection(dims, rt60, src, mic, rate):
    """The reflection coefficient whose responses decay in `rt60`: a shoebox with specular walls
    decays more slowly than Eyring's diffuse room, so the target is corrected on a measured
    response, twice."""
    target = rt60
    for _ in range(2):
        beta = reflection(dims, target)
        h = rirs(dims, src, np.array([mic]), rt60, rate, beta=beta)[0]
        target *= rt60 / max(decay_time(h, rate), 1e-3)
    return reflection(dims, target)


def image_sources(dims, src, beta, max_distance):
    """Positions (n, 3) and amplitudes before spreading (n,) of the images within reach."""
    lx, ly, lz = dims
    reach = [int(math.ceil(max_distance / (2 * d))) + 1 for d in dims]
    axes = []
    for axis, (length, s, r) in enumerate(zip(dims, src, reach)):
        n = np.arange(-r, r + 1)
        pos, count = [], []
        for parity in (0, 1):
            # x' = (1 - 2p) x + 2 n L; walls hit: |n - p| at 0 and |n| at L
            pos.append((1 - 2 * parity) * s + 2 * n * length)
            count.append(np.abs(n - parity) + np.abs(n))
        axes.append((np.concatenate(pos), np.concatenate(count)))
    (x, cx), (y, cy), (z, cz) = axes
    px, py, pz = np.meshgrid(x, y, z, indexing="ij")
    kx, ky, kz = np.meshgrid(cx, cy, cz, indexing="ij")
    positions = np.stack([px.ravel(), py.ravel(), pz.ravel()], axis=1)
    amplitude = beta ** (kx + ky + kz).ravel().astype(float)
    return positions, amplitude


def rirs(dims, src, mics, rt60, rate, t_min=0.0, t_max=None, beta=None):
    """Impulse responses (mics, samples) from `src` to each mic, keeping the arrivals with a
    delay in [t_min, t_max) seconds. Without t_max: until 40 dB of decay (at most 0.6 s). The
    walls reflect `beta` of the pressure (default: Eyring's for rt60)."""
    if t_max is None:
        t_max = min(0.6, rt60 * 40.0 / 60.0)
    if beta is None:
        beta = reflection(dims, rt60)
    positions, amplitude = image_sources(dims, src, beta, t_max * C + 1.0)
    length = int(t_max * rate) + TAPS + 1
    out = np.zeros((len(mics), length))
    half = TAPS // 2
    offsets = np.arange(-half + 1, half + 1)
    for m, mic in enumerate(mics):
        d = np.linalg.norm(positions - mic, axis=1)
        delay = d / C
        keep = (delay >= t_min) & (delay < t_max) & (amplitude > 1e-4)
        d, delay, a = d[keep], delay[keep] * rate, amplitude[keep] / (4 * math.pi * np.maximum(d[keep], 0.1))
        base = np.floor(delay).astype(int)
        frac = delay - base
        # Hann-windowed sinc centred on the fractional delay
        t = offsets[None, :] - frac[:, None]
        h = np.sinc(t) * (0.5 + 0.5 * np.cos(np.pi * t / (half + 1)))
        idx = base[:, None] + offsets[None, :]
        ok = (idx >= 0) & (idx < length)
        out[m] = np.bincount(idx[ok], weights=(a[:, None] * h)[ok], minlength=length)[:length]
    return out


def static_source(signal, dims, src, mics, rt60, rate, beta=None):
    """The signal as the mics hear it from a fixed position."""
    h = rirs(dims, src, mics, rt60, rate, beta=beta)
    return np.stack([fftconvolve(signal, hm)[: len(signal)] for hm in h])


def moving_source(signal, dims, path, mics, rt60, rate, block=0.05, beta=None):
    """The signal from a source following `path(t)` (position at t seconds): the direct sound and
    early reflections (first 50 ms) move with it, block by block with cross-fades; the late
    reverberation, diffuse, comes from the middle of the path."""
    n = len(signal)
    hop = int(block * rate)
    early = 0.05
    out = np.zeros((len(mics), n + int(0.2 * rate)))
    window = np.hanning(2 * hop + 1)[:-1]
    padded = np.concatenate([np.zeros(hop), signal, np.zeros(2 * hop)])
    for start in range(0, n + hop, hop):
        seg = padded[start:start + 2 * hop] * window
        if not seg.any():
            continue
        t = (start - hop + hop) / rate  # the block's centre in the signal
        h = rirs(dims, path(t), mics, rt60, rate, 0.0, early, beta)
        for m in range(len(mics)):
            y = fftconvolve(seg, h[m])
            lo = start - hop
            a, b = max(0, lo), min(out.shape[1], lo + len(y))
            out[m, a:b] += y[a - lo:b - lo]
    late = rirs(dims, path(n / rate / 2), mics, rt60, rate, early, None, beta)
    for m in range(len(mics)):
        out[m, :n] += fftconvolve(signal, late[m])[:n]
    return out[:, :n]


def fibonacci_sphere(count):
    i = np.arange(count) + 0.5
    z = 1 - 2 * i / count
    r = np.sqrt(1 - z * z)
    phi = math.pi * (1 + 5 ** 0.5) * i
    return np.stack([r * np.cos(phi), r * np.sin(phi), z], axis=1)


def diffuse_noise(rng, n, mics, rate, directions=64):
    """Spherically isotropic pink noise at the mics: independent plane waves from evenly spread
    directions, delayed exactly in the frequency domain."""
    f = np.fft.rfftfreq(n, 1.0 / rate)
    shape = 1.0 / np.sqrt(np.maximum(f, 20.0))  # pink: power falls as 1/f
    out = np.zeros((len(mics), len(f)), dtype=complex)
    for u in fibonacci_sphere(directions):
        spectrum = np.fft.rfft(rng.standard_normal(n)) * shape
        delays = -(mics @ u) / C  # a mic nearer the incoming wave hears it earlier
        out += spectrum[None, :] * np.exp(-2j * math.pi * f[None, :] * delays[:, None])
    return np.fft.irfft(out, n=n, axis=1)


def direction_to(mics_centre, yaw, point):
    """Unit vector from the array centre to `point`, in the array's own frame (rotated by
    -yaw about z)."""
    v = np.asarray(point) - mics_centre
    c, s = math.cos(-yaw), math.sin(-yaw)
    v = np.array([c * v[0] - s * v[1], s * v[0] + c * v[1], v[2]])
    return v / np.linalg.norm(v)
