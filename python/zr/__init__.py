"""A client of the ZR platform in pure Python: call, watch and host modules over the wire,
write extractors (zr.Extractor, zr.SoundExtractor) that join a pipeline of C++ modules, and read
recordings (zr.Recording)."""

from ._client import Client, Proxy, connect, method
from ._errors import ZRError
from ._extractor import Extractor
from ._mcap import RecordingError
from ._recording import Recording, Sound, SoundBlock
from ._soundextractor import SoundExtractor
from ._timestamp import Timestamp, decode_sample, decode_timestamp

__all__ = ["Client", "Extractor", "Proxy", "Recording", "RecordingError", "Sound", "SoundBlock",
           "SoundExtractor", "Timestamp", "ZRError", "connect", "decode_sample", "decode_timestamp",
           "method"]
