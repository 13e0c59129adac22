"""zr.SoundExtractor: an extractor that receives sound from the audio device "ZRAudioDevice"
while it has subscribers, with the remote methods and texts of the C++ ZR::ZRSoundExtractor,
and hands each buffer to Python as a numpy view of the received bytes."""

import logging

try:
    import numpy
except ImportError:  # the rest of the client works without it
    numpy = None

from ._errors import ZRError
from ._extractor import Extractor
from ._hosting import Method
from ._platform import DEVICE_MODULE, MEMORY_MODULE
from ._timestamp import decode_timestamp

log = logging.getLogger("zr.audio.zrsoundextractor")

_CLASS = "ZRSoundExtractor"
_DESCRIPTION = "enable/disable the printing of some debug information"
_CHANNELS = ("nbOfChannels", "int", "Provides the number of channels of the buffer.")
_FRAMES = ("nbOfSamplesByChannel", "int", "Provides the number of samples by channel.")
_BUFFER = ("buffer", "ZRValue", "Provides the audio buffer as an ZRValue.")
_INT16 = "=i2"  # the device's samples: native-endian, interleaved


class SoundExtractor(Extractor):
    """The base of an extractor that works on sound. While it has subscribers it is subscribed
    to "ZRAudioDevice", which delivers every buffer to its remote "processRemote"; each buffer
    reaches process(samples, timestamp), which by default calls process_sound(samples).

    samples: a read-only numpy int16 array of shape (frames, channels), viewing the bytes as they
    arrived (no copy; valid after the call only as long as you keep a reference, and never
    writable: copy it to change it). None when the buffer held no binary data.
    timestamp: a zr.Timestamp, the float of seconds from the first sample of the stream to the
    buffer's first sample, with the buffer's sample index, sequence number and capture times as
    named fields; any other shape is passed on as it came.

    Buffers of one device run one at a time, in order, on a thread of their own, concurrently
    with the remote calls and hooks; share state between them under a lock of your own."""

    def __init__(self, client, name):
        if numpy is None:
            raise ZRError(name, _CLASS, "a sound extractor needs numpy (Debian: python3-numpy)")
        super().__init__(client, name)
        self.is_started = False
        self.debug_mode = False
        self.auxiliary_value = [0, 0]
        self._device = None
        self._rate = None
        try:
            self._device = client.proxy(DEVICE_MODULE)
        except ZRError as e:
            # Tried again at the first subscription.
            log.warning("%s Sound capture will not work.", e)

    # ---- what a sound extractor overrides --------------------------------------------------

    def process(self, samples, timestamp):
        """One buffer: int16 samples of shape (frames, channels) and its time in seconds."""
        self.process_sound(samples)

    def process_sound(self, samples):
        """One buffer, without its time."""

    def processSoundRemote(self, nbOfChannels, nbOfSamplesByChannel, buffer):
        """After each delivery, with whether the buffer held data (True or False), or as called
        remotely with a buffer of the caller's."""

    # ---- the device subscription ------------------------------------------------------------

    @property
    def sample_rate(self):
        """The device's sample rate in Hz, asked once per subscription (0 when it cannot tell).
        Read it while sound arrives: a file's rate is known once the device opened it."""
        if not self._rate:
            self._rate = self.client.call(DEVICE_MODULE, "getSampleRate")
        return self._rate

    def start_detection(self):
        """Subscribes this module to "ZRAudioDevice" unless it is already."""
        if self.is_started:
            return
        log.debug("ZRSoundExtractor : startDetection")
        try:
            if self._device is None:
                self._device = self.client.proxy(DEVICE_MODULE)
            self._device.call("subscribe", self.name)
            self.is_started = True
        except ZRError as e:
            self.is_started = False
            raise ZRError(self.name, "startDetection", str(e)) from None

    def stop_detection(self):
        """Unsubscribes this module from "ZRAudioDevice" if it is subscribed."""
        if not self.is_started:
            return
        log.debug("ZRSoundExtractor : stopDetection")
        # Cleared first: a failed unsubscribe still leaves this module not subscribed.
        self.is_started = False
        self._rate = None
        self._device.call("unsubscribe", self.name)

    def x_start_detection(self, period, precision):
        self.start_detection()

    def x_update_parameters(self, period, precision):
        pass

    def x_stop_detection(self):
        self.stop_detection()

    # ---- remote methods ---------------------------------------------------------------------

    def setDebugMode(self, bSetOrUnset):
        log.warning("The call to setDebugMode() is now deprectated. This functionnality is now "
                    "handled by vo/log")
        self.debug_mode = bSetOrUnset

    def processRemote(self, nbOfChannels, nbOfSamplesByChannel, timestamp, buffer):
        """A buffer from the device: to process, then to processSoundRemote with whether it
        held data."""
        samples = None
        if isinstance(buffer, memoryview):
            count = nbOfChannels * nbOfSamplesByChannel
            if nbOfChannels <= 0 or nbOfSamplesByChannel < 0 or buffer.nbytes < 2 * count:
                raise ZRError(self.name, "processRemote", "a buffer of %d bytes does not hold "
                              "%d x %d 16-bit samples" % (buffer.nbytes, nbOfChannels,
                                                          nbOfSamplesByChannel))
            samples = numpy.frombuffer(buffer, _INT16, count).reshape(
                nbOfSamplesByChannel, nbOfChannels)
        timestamp = decode_timestamp(timestamp)
        self.process(samples, timestamp)
        self.processSoundRemote(nbOfChannels, nbOfSamplesByChannel, samples is not None)

    def getOutputNames(self):
        """The events "ZRMemory" lists for this extractor, asked anew each time."""
        return self.client.call(MEMORY_MODULE, "getExtractorEvent", self.name)

    def _zr_version(self):
        return ""

    def _zr_unhosting(self):
        # As the C++ destructor: this class's own stop, not an override's.
        try:
            SoundExtractor.stop_detection(self)
        except ZRError as e:
            log.error("%s: unsubscribing from %s while going away: %s", self.name,
                      DEVICE_MODULE, e)

    def _zr_table(self):
        c = _CLASS
        return super()._zr_table() + [
            Method("setDebugMode", lambda b: SoundExtractor.setDebugMode(self, b), c,
                   _DESCRIPTION,
                   [("bSetOrUnset", "bool", "enable the functionnality when true.")], "void"),
            Method("processRemote", lambda *a: SoundExtractor.processRemote(self, *a), c,
                   _DESCRIPTION,
                   [_CHANNELS, _FRAMES, ("timestamp", "ZRValue",
                                         "Provides the timestamp of the buffer."), _BUFFER],
                   "void"),
            Method("processSoundRemote", self.processSoundRemote, c, _DESCRIPTION,
                   [_CHANNELS, _FRAMES, _BUFFER], "void"),
        ]
