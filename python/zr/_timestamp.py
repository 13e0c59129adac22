"""The audio device's timestamp, decoded: the layout of zrcommon/zraudiotimestamp.h (see
docs/timestamps.md). A Timestamp is a float (seconds from the stream's first sample, as older
timestamps were read) that also names where its buffer sits and when it was captured."""

SIZE = 10
_FIELDS = ("sample", "monotonic_ns", "realtime_ns", "sequence")


def _join(high, low):
    """A 64-bit value from its high 32 bits (signed) and the bit pattern of its low 32."""
    return (high << 32) | (low & 0xFFFFFFFF)


class Timestamp(float):
    """Seconds from the stream's first sample to the buffer's first sample, with the fields:
    seconds, microseconds, sample (index of that sample in the stream, lost samples counted),
    monotonic_ns and realtime_ns (its capture time on the host's clocks), sequence (the
    buffer's number in its stream), and has_position (False for an old [seconds,
    microseconds] timestamp, whose other fields are 0)."""

    __slots__ = ("seconds", "microseconds", "sample", "monotonic_ns", "realtime_ns",
                 "sequence", "has_position")

    def __new__(cls, seconds, microseconds, sample=0, monotonic_ns=0, realtime_ns=0,
                sequence=0, has_position=True):
        self = super().__new__(cls, seconds + microseconds * 1e-6)
        self.seconds = seconds
        self.microseconds = microseconds
        self.sample = sample
        self.monotonic_ns = monotonic_ns
        self.realtime_ns = realtime_ns
        self.sequence = sequence
        self.has_position = has_position
        return self

    def __repr__(self):
        return ("Timestamp(%.6f s, sample=%d, sequence=%d, monotonic_ns=%d, realtime_ns=%d)"
                % (float(self), self.sample, self.sequence, self.monotonic_ns,
                   self.realtime_ns))


def decode_timestamp(value):
    """A Timestamp from the device's value; any other shape comes back as it was."""
    if (type(value) is not list or len(value) < 2
            or not all(type(v) is int for v in value[:2])):
        return value
    if len(value) >= SIZE and all(type(v) is int for v in value[2:SIZE]):
        fields = [_join(value[i], value[i + 1]) for i in range(2, SIZE, 2)]
        return Timestamp(value[0], value[1], *fields)
    return Timestamp(value[0], value[1], has_position=False)


def decode_sample(value):
    """A stream position as results and "ZRAudioDevice/Gap" carry it: an int, or [high, low]
    past 32 bits. None for anything else."""
    if type(value) is int:
        return value
    if type(value) is list and len(value) == 2 and all(type(v) is int for v in value):
        return _join(value[0], value[1])
    return None
