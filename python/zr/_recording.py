"""Recordings of a ZR system, read in Python: each event channel's events as dicts, each sound
channel's buffers as blocks of numpy samples, or a whole stream as one array with its gaps
filled with silence. The layout (topics, schemas, message JSON) is the one `zr` records; the
container is read by our own MCAP reader."""

import base64
import binascii
import json
from collections import namedtuple

from ._mcap import McapReader, RecordingError

ChannelInfo = namedtuple("ChannelInfo", "topic kind module schema count metadata")
ChannelInfo.__doc__ = """One channel of a recording: its topic, its kind ("sound", "event", or
"" for a channel zr did not write), the module that produced it, its schema's name, its number
of messages and its metadata (a dict)."""

Message = namedtuple("Message", "topic sequence log_time publish_time data")
Message.__doc__ = """One recorded message as stored: topic, sequence (its number in its channel),
log_time and publish_time (ns), and data (the bytes of its JSON)."""

# Longest run of lost sound sound_array() fills with silence, in seconds: longer is damage or a
# stream restarted, which a caller should see in the blocks rather than as hours of zeros.
MAX_GAP_SECONDS = 3600


class SoundBlock:
    """One buffer of a sound channel: its topic, sample_rate, channels, sample (the 64-bit index
    of its first sample in the stream, lost samples counted), sequence, log_time (capture time
    of its first sample, real-time clock, ns), and samples (a read-only numpy int16 array of
    shape (frames, channels))."""

    __slots__ = ("topic", "sample_rate", "channels", "sample", "sequence", "log_time", "samples")

    def __init__(self, topic, sample_rate, channels, sample, sequence, log_time, samples):
        self.topic, self.sample_rate, self.channels = topic, sample_rate, channels
        self.sample, self.sequence, self.log_time = sample, sequence, log_time
        self.samples = samples

    @property
    def frames(self):
        return self.samples.shape[0]

    def __repr__(self):
        return "SoundBlock(%r, sample=%d, frames=%d, channels=%d, %d Hz, sequence=%d)" % (
            self.topic, self.sample, self.frames, self.channels, self.sample_rate, self.sequence)


Sound = namedtuple("Sound", "samples sample_rate start log_time gaps")
Sound.__doc__ = """A whole sound stream: samples (numpy int16, shape (frames, channels), rows in
stream order with lost sound as zeros), sample_rate, start (stream position of row 0), log_time
(capture time of row 0, ns) and gaps: (position, frames) for each run of lost sound that was
filled with zeros, positions in the stream (row = position - start)."""


class Recording:
    """A recording made by `zr` (or any MCAP file in its layout). Opening reads the summary (or,
    for a file cut short, reads it through); each of messages(), events() and sound() reads the
    file again from the start. `complete` is False and `damage` says where the file was cut when
    it was cut short; everything before the cut is read. Faults raise zr.RecordingError."""

    def __init__(self, path):
        self._mcap = m = McapReader(path)
        self.path = m.path
        self.library, self.profile = m.header.library, m.header.profile
        self.complete = m.complete
        self.damage = m.damage or None
        self.damage_offset = m.damage_offset
        self.start_time, self.end_time = m.start_time, m.end_time
        self._topics = {}
        self.channels = {}
        for cid, c in sorted(m.channels.items()):
            self._topics[cid] = c.topic
            schema = m.schemas.get(c.schema_id)
            old = self.channels.get(c.topic)
            self.channels[c.topic] = ChannelInfo(
                c.topic, c.metadata.get("zr.kind", ""), c.metadata.get("zr.module", ""),
                schema.name if schema else "",
                m.message_counts.get(cid, 0) + (old.count if old else 0), dict(c.metadata))

    def __repr__(self):
        return "Recording(%r, %d channels%s)" % (self.path, len(self.channels),
                                                 "" if self.complete else ", cut short")

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        pass  # nothing is held open between reads

    @property
    def duration(self):
        """Seconds from the first message's log time to the last one's (0 when empty)."""
        return 0.0 if self.start_time is None else (self.end_time - self.start_time) / 1e9

    def _ids(self, topic, kind, method):
        """Channel ids for `topic` (None: every channel of `kind`; a topic; or a list of them)."""
        if topic is None:
            return {cid for cid, t in self._topics.items()
                    if kind is None or self.channels[t].kind == kind}
        topics = [topic] if isinstance(topic, str) else list(topic)
        for t in topics:
            info = self.channels.get(t)
            if info is None or (kind is not None and info.kind != kind):
                have = sorted(i.topic for i in self.channels.values()
                              if kind is None or i.kind == kind)
                raise RecordingError(self.path, "no %schannel \"%s\" (it has: %s)" % (
                    kind + " " if kind else "", t, ", ".join(have) or "none"), method=method)
        return {cid for cid, t in self._topics.items() if t in topics}

    def messages(self, topic=None):
        """Every message (of `topic`: a topic or a list of them) in file order, as Message."""
        for m in self._mcap.messages(self._ids(topic, None, "messages")):
            yield Message(self._topics[m.channel_id], m.sequence, m.log_time, m.publish_time,
                          m.data)

    def _json(self, m, method):
        try:
            value = json.loads(m.data)
        except (ValueError, UnicodeDecodeError) as e:
            value = e
        if not isinstance(value, dict):
            raise RecordingError(self.path, "message %d of \"%s\" is not a JSON object (%s)" % (
                m.sequence, m.topic, value if isinstance(value, ValueError)
                else type(value).__name__), method=method)
        return value

    def events(self, topic=None):
        """The events (of `topic`, a topic or a list of them; all by default) in file order,
        each a dict of the event's fields (a value that is not a record as {"value": v}) with
        "topic" and "log_time" (ns, capture time of the sound it was made from) added; they
        take the place of fields of those names."""
        for m in self.messages(self._topics_of(self._ids(topic, "event", "events"))):
            event = self._json(m, "events")
            event["topic"] = m.topic
            event["log_time"] = m.log_time
            yield event

    def _topics_of(self, ids):
        return sorted({self._topics[i] for i in ids})

    def sound(self, topic=None):
        """The sound blocks (of `topic`; of every sound channel by default) in file order."""
        np = _numpy(self.path)
        for m in self.messages(self._topics_of(self._ids(topic, "sound", "sound"))):
            yield self._block(np, m)

    def _block(self, np, m):
        j = self._json(m, "sound")

        def fault(what):
            return RecordingError(self.path, "sound message %d of \"%s\": %s" % (
                m.sequence, m.topic, what), method="sound")

        def integer(key, default=None, low=0):
            v = j.get(key, default)
            if v is default and key not in j:
                return v
            if not isinstance(v, int) or isinstance(v, bool) or v < low:
                raise fault("%s is %r, not an integer of at least %d" % (key, v, low))
            return v

        if j.get("format") != "pcm-s16":
            raise fault("format %r, not \"pcm-s16\"" % j.get("format"))
        rate, channels = integer("sample_rate", low=1), integer("number_of_channels", low=1)
        stamp = j.get("timestamp")
        if not isinstance(stamp, dict):
            raise fault("no timestamp")
        sec, nsec = stamp.get("sec", 0), stamp.get("nsec", 0)
        if not all(isinstance(v, int) and v >= 0 for v in (sec, nsec)) or nsec >= 10**9:
            raise fault("timestamp %r is not seconds and nanoseconds" % (stamp,))
        try:
            raw = base64.b64decode(j.get("data", ""), validate=True)
        except (binascii.Error, TypeError, ValueError) as e:
            raise fault("data is not base64 (%s)" % e) from None
        if len(raw) % (2 * channels):
            raise fault("%d bytes of data do not hold whole frames of %d int16 channels" % (
                len(raw), channels))
        samples = np.frombuffer(raw, dtype="<i2").reshape(-1, channels)
        return SoundBlock(m.topic, rate, channels, integer("sample", None, -(1 << 63)),
                          integer("sequence", m.sequence), sec * 10**9 + nsec, samples)

    def sound_array(self, topic=None):
        """One sound channel's whole stream as a Sound: its blocks laid at their positions,
        lost sound (a position beyond the previous block's end) as zeros, listed in `gaps`.
        `topic` may be omitted when the recording has one sound channel. RecordingError when a
        block goes back in the stream, changes format, or a gap is longer than an hour."""
        np = _numpy(self.path)
        ids = self._ids(topic, "sound", "sound_array")
        topics = self._topics_of(ids)
        if len(topics) != 1:
            raise RecordingError(self.path, "%s: name one with topic=" % (
                "several sound channels (%s)" % ", ".join(topics) if topics
                else "no sound channel"), method="sound_array")
        blocks, gaps, end = [], [], None
        for b in self.sound(topics[0]):
            first = blocks[0] if blocks else b
            if b.sample is None:  # a writer that does not count samples: back to back
                b.sample = 0 if end is None else end
            if (b.sample_rate, b.channels) != (first.sample_rate, first.channels):
                raise self._stream_fault(b, "changes from %d channels at %d Hz to %d at %d Hz" % (
                    first.channels, first.sample_rate, b.channels, b.sample_rate))
            if end is not None and b.sample < end:
                raise self._stream_fault(b, "starts at sample %d, before the end of the block "
                                         "before it (%d)" % (b.sample, end))
            if end is not None and b.sample > end:
                if b.sample - end > MAX_GAP_SECONDS * b.sample_rate:
                    raise self._stream_fault(b, "follows a gap of %d samples (more than %d s); "
                                             "read its blocks with sound()" % (
                                                 b.sample - end, MAX_GAP_SECONDS))
                gaps.append((end, b.sample - end))
            blocks.append(b)
            end = b.sample + b.frames
        if not blocks:
            return Sound(np.zeros((0, 0), np.int16), 0, 0, None, [])
        start = blocks[0].sample
        out = np.zeros((end - start, blocks[0].channels), np.int16)
        for b in blocks:
            out[b.sample - start:b.sample - start + b.frames] = b.samples
        return Sound(out, blocks[0].sample_rate, start, blocks[0].log_time, gaps)

    def _stream_fault(self, block, what):
        return RecordingError(self.path, "the sound of \"%s\" at sequence %d %s" % (
            block.topic, block.sequence, what), method="sound_array")


def _numpy(path):
    try:
        import numpy
    except ImportError:
        raise RecordingError(path, "reading sound needs numpy (Debian: python3-numpy)",
                             method="sound") from None
    return numpy
