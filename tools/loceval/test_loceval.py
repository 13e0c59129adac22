"""The evaluation's own parts: a simulation that puts sound where it says, and a scorer that
counts what it says. Run by ctest (loceval_tools) with Debian's numpy and scipy."""

import math
import os
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import loceval  # noqa: E402
import roomsim  # noqa: E402

RATE = 16000


def gcc_phat_delay(a, b, upsample=16):
    """Delay of b against a, in samples, to 1/upsample."""
    n = len(a) + len(b)
    spectrum = np.fft.rfft(b, n) * np.conj(np.fft.rfft(a, n))
    spectrum /= np.abs(spectrum) + 1e-12
    corr = np.fft.irfft(spectrum, n * upsample)
    corr = np.concatenate([corr[-n * upsample // 2:], corr[: n * upsample // 2]])
    return (np.argmax(corr) - n * upsample // 2) / upsample


def test_direct_path_arrives_with_its_fractional_delay():
    # The direct path alone: what arrives before the first reflection.
    dims, src = (6.0, 5.0, 3.0), np.array([4.2, 3.1, 1.5])
    mics = np.array([2.0, 2.0, 1.0]) + loceval.array_mics("circular4-r32mm")
    h = roomsim.rirs(dims, src, mics, 0.3, RATE, t_max=0.009)  # before the first reflection
    x = np.random.default_rng(1).standard_normal(RATE)
    heard = [np.convolve(x, hm)[: RATE] for hm in h]
    for m in range(1, 4):
        expected = (np.linalg.norm(src - mics[m]) - np.linalg.norm(src - mics[0])) / 343.0 * RATE
        assert abs(gcc_phat_delay(heard[0], heard[m]) - expected) < 0.1


def test_reverberation_decays_at_the_time_asked():
    dims, src, mic = (7.0, 5.0, 3.0), np.array([4.0, 3.0, 1.5]), np.array([2.0, 2.0, 1.0])
    for rt60 in (0.3, 0.8):
        beta = roomsim.calibrated_reflection(dims, rt60, src, mic, RATE)
        # Measured elsewhere in the room than it was calibrated.
        h = roomsim.rirs(dims, np.array([5.5, 1.5, 1.7]), np.array([[1.5, 3.5, 1.1]]), rt60, RATE,
                         beta=beta)[0]
        assert abs(roomsim.decay_time(h, RATE) - rt60) < 0.15 * rt60


def test_diffuse_noise_has_the_coherence_of_a_diffuse_field():
    mics = np.array([[0.0, 0.0, 0.0], [0.1, 0.0, 0.0]])
    x = roomsim.diffuse_noise(np.random.default_rng(2), 8 * RATE, mics, RATE, directions=256)
    frames = [np.fft.rfft(x[:, i:i + 512] * np.hanning(512)) for i in range(0, x.shape[1] - 512, 256)]
    s01 = np.mean([f[0] * np.conj(f[1]) for f in frames], axis=0)
    s00 = np.mean([abs(f[0]) ** 2 for f in frames], axis=0)
    s11 = np.mean([abs(f[1]) ** 2 for f in frames], axis=0)
    coherence = np.real(s01) / np.sqrt(s00 * s11)
    f = np.fft.rfftfreq(512, 1 / RATE)
    expected = np.sinc(2 * f * 0.1 / 343.0)
    band = (f > 100) & (f < 6000)
    assert np.max(np.abs(coherence[band] - expected[band])) < 0.15


def test_scorer_counts_hits_misses_and_false_sources():
    # One talker at 30 deg, active in periods 10-19 (10 ms frames 100-199) of 40.
    truth = [{"active": [100 <= i < 200 for i in range(400)], "azimuth": [30.0] * 400}]
    periods = {k: [32.0] for k in range(12, 20)}  # found 2 periods late, 2 deg off
    periods[15] = [32.0, -100.0]  # and once a false second source
    periods[35] = [0.0]  # and once in silence
    c = loceval.score("circular4-r32mm", periods, truth)
    m = loceval.metrics(c)
    assert m["detection"] == 0.8 and m["within10"] == 0.8
    assert m["median"] == 2.0
    assert c["reported"] == 9 and c["correct"] == 8
    assert c["silent"] == 40 - 10 - 5 and c["false"] == 1
    # A line array: the error is the difference of angles from its axis, no wrapping.
    assert loceval.azimuth_error("linear4-d40mm", 175.0, 5.0) == 170.0
    assert loceval.azimuth_error("circular4-r32mm", 175.0, -175.0) == 10.0
