"""SpectralCentroid: a sound extractor in Python. For every buffer of the audio device it
publishes "<name>/Centroid", the record [["time", s], ["centroid", [Hz per channel]]]: where the
energy of each channel's spectrum sits, its brightness (Hann window; 0 for a silent channel).

    python3 -m zr host examples/python/spectral_centroid.py
    zr run --directory tcp://127.0.0.1:7470 -e SpectralCentroid -e SoundLevel
"""

import numpy as np

import zr


class SpectralCentroid(zr.SoundExtractor):
    def __init__(self, client, name):
        super().__init__(client, name)
        self.declare_event(name + "/Centroid")  # outputs: declared before anyone subscribes

    def process(self, samples, timestamp):
        # samples: int16 of shape (frames, channels), read-only, straight from the wire.
        frames = samples.shape[0]
        spectrum = np.abs(np.fft.rfft(samples * np.hanning(frames)[:, None], axis=0))
        freqs = np.fft.rfftfreq(frames, 1.0 / self.sample_rate)
        total = spectrum.sum(axis=0)
        centroid = np.divide(freqs @ spectrum, total, out=np.zeros_like(total), where=total > 0)
        self.raise_event(self.name + "/Centroid",
                         [["time", timestamp], ["centroid", centroid.tolist()]])
