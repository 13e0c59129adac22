"""A small, strict reader of MCAP files: the records of the container, their chunks
(uncompressed, zstd or lz4, each checked against its CRC-32), and the summary that lists
schemas, channels and message counts without a pass over the data. A file cut short (its writer
killed) gives the messages of every complete record before the cut and says where it was cut;
anything else that is not what it claims to be raises RecordingError naming file and offset."""

import io
import os
import struct
import zlib
from collections import namedtuple

from ._errors import ZRError

MAGIC = b"\x89MCAP0\r\n"

HEADER, FOOTER, SCHEMA, CHANNEL, MESSAGE, CHUNK = 0x01, 0x02, 0x03, 0x04, 0x05, 0x06
MESSAGE_INDEX, CHUNK_INDEX, ATTACHMENT, ATTACHMENT_INDEX = 0x07, 0x08, 0x09, 0x0A
STATISTICS, METADATA, METADATA_INDEX, SUMMARY_OFFSET, DATA_END = 0x0B, 0x0C, 0x0D, 0x0E, 0x0F

_RECORD = struct.Struct("<BQ")  # opcode, length of the body that follows
_FOOTER_BODY = 8 + 8 + 4  # summary start, summary offset start, summary CRC
_TAIL = _RECORD.size + _FOOTER_BODY + len(MAGIC)
_DATA_END_SIZE = _RECORD.size + 4
_MESSAGE_PREFIX = struct.Struct("<HIQQ")  # channel, sequence, log time, publish time
# Decompressed in pieces, so that memory follows what a chunk really holds, not what it claims.
_PIECE = 1 << 20

Header = namedtuple("Header", "profile library")
Schema = namedtuple("Schema", "id name encoding data")
Channel = namedtuple("Channel", "id schema_id topic message_encoding metadata")
Message = namedtuple("Message", "channel_id sequence log_time publish_time data")
Statistics = namedtuple("Statistics", "message_count schema_count channel_count "
                        "attachment_count metadata_count chunk_count message_start_time "
                        "message_end_time channel_message_counts")
ChunkIndex = namedtuple("ChunkIndex", "message_start_time message_end_time chunk_start_offset "
                        "chunk_length message_index_offsets message_index_length compression "
                        "compressed_size uncompressed_size")


class RecordingError(ZRError, ValueError):
    """A recording that cannot be read as it claims: its module is the file's path, its method
    "read", and `offset` the byte of the file where the fault is (None when it is not a place)."""

    def __init__(self, path, description, offset=None, method="read"):
        if offset is not None:
            description += " (at byte %d)" % offset
        super().__init__(path, method, description)
        self.path = path
        self.offset = offset


class _Malformed(Exception):
    """A field that does not fit its record; `at` is its offset within the parsed buffer."""

    def __init__(self, what, at):
        super().__init__(what)
        self.at = at


class _Cursor:
    """Little-endian fields of one record body, never read past its end."""

    __slots__ = ("buf", "pos", "end")

    def __init__(self, buf, pos=0, end=None):
        self.buf, self.pos, self.end = buf, pos, len(buf) if end is None else end

    def take(self, n, what):
        if n > self.end - self.pos:
            raise _Malformed("%s of %d bytes runs past the end of its record" % (what, n), self.pos)
        self.pos += n
        return self.buf[self.pos - n:self.pos]

    def unpack(self, fmt, what):
        return struct.unpack_from(fmt, self.take(struct.calcsize(fmt), what))

    def u16(self, what):
        return self.unpack("<H", what)[0]

    def u32(self, what):
        return self.unpack("<I", what)[0]

    def u64(self, what):
        return self.unpack("<Q", what)[0]

    def string(self, what):
        at = self.pos
        raw = self.take(self.u32(what), what)
        try:
            return bytes(raw).decode("utf-8")
        except UnicodeDecodeError:
            raise _Malformed("%s is not UTF-8" % what, at) from None

    def blob(self, what, wide=False):
        return bytes(self.take(self.u64(what) if wide else self.u32(what), what))

    def pairs(self, key, value, what):
        """A map: its byte length, then key-value pairs filling it exactly."""
        size = self.u32(what)
        inner = _Cursor(self.buf, self.pos, self.pos + size)
        self.take(size, what)
        out = {}
        while inner.pos < inner.end:
            at = inner.pos
            k = key(inner, what)
            if k in out:
                raise _Malformed("%s repeats the key %r" % (what, k), at)
            out[k] = value(inner, what)
        return out


def _parse_schema(c):
    return Schema(c.u16("schema id"), c.string("schema name"), c.string("schema encoding"),
                  c.blob("schema data"))


def _parse_channel(c):
    return Channel(c.u16("channel id"), c.u16("schema id"), c.string("topic"),
                   c.string("message encoding"),
                   c.pairs(_Cursor.string, _Cursor.string, "channel metadata"))


def _parse_message(body):
    if len(body) < _MESSAGE_PREFIX.size:
        raise _Malformed("a message of %d bytes is shorter than its fields" % len(body), 0)
    return Message(*_MESSAGE_PREFIX.unpack_from(body), bytes(body[_MESSAGE_PREFIX.size:]))


def _parse_statistics(c):
    f = c.unpack("<QHIIIIQQ", "statistics")
    return Statistics(*f, c.pairs(_Cursor.u16, _Cursor.u64, "channel message counts"))


def _parse_chunk_index(c):
    times = c.unpack("<QQQQ", "chunk index")
    offsets = c.pairs(_Cursor.u16, _Cursor.u64, "message index offsets")
    return ChunkIndex(*times, offsets, c.u64("message index length"),
                      c.string("compression"), c.u64("compressed size"),
                      c.u64("uncompressed size"))


def _decompressed(compression, data, size):
    """The records of a chunk: at most `size` bytes are produced, whatever the data claims."""
    if compression == "":
        return data
    if compression == "zstd":
        try:
            import zstandard
        except ImportError:
            raise _Malformed("a zstd chunk needs the module zstandard (Debian: "
                             "python3-zstandard)", 0) from None
        stream, errors = zstandard.ZstdDecompressor().stream_reader(data), zstandard.ZstdError
    elif compression == "lz4":
        try:
            import lz4.frame
        except ImportError:
            raise _Malformed("an lz4 chunk needs the module lz4 (Debian: python3-lz4)", 0) from None
        stream, errors = lz4.frame.LZ4FrameFile(io.BytesIO(data)), RuntimeError
    else:
        raise _Malformed("unknown chunk compression %r" % compression, 0)
    out = bytearray()
    try:
        with stream:
            while len(out) <= size:
                piece = stream.read(min(_PIECE, size + 1 - len(out)))
                if not piece:
                    break
                out += piece
    except (errors, EOFError, OSError, ValueError, RuntimeError) as e:
        raise _Malformed("the %s data cannot be decompressed (%s)" % (compression, e), 0) from None
    if len(out) != size:
        raise _Malformed("the %s data holds %s bytes, not the %d it declares" % (
            compression, "more" if len(out) > size else len(out), size), 0)
    return out


class McapReader:
    """An MCAP file: `header`, `schemas` and `channels` (by id), `message_counts` (by channel
    id), `statistics` and `chunk_indexes` (None or [] when the file has none), `start_time`
    and `end_time` (log times, ns; None without messages). `complete` is
    False for a file cut short, whose `damage` says where ("" when complete) and whose
    `damage_offset` is the first byte not read. messages() reads the data section again on each
    call; the file is not held open between calls."""

    def __init__(self, path):
        self.path = os.fspath(path)
        self.schemas, self.channels, self.message_counts = {}, {}, {}
        self.statistics, self.chunk_indexes = None, []
        self.start_time = self.end_time = None  # log times of the first and last messages
        self.complete, self.damage, self.damage_offset = True, "", None
        try:
            f = open(self.path, "rb")
        except OSError as e:
            raise RecordingError(self.path, "cannot be opened: %s" % (e.strerror or e)) from None
        with f:
            self._size = os.fstat(f.fileno()).st_size
            self._read_start(f)
            summarised = self._read_tail(f)
            if not summarised:
                for _ in self._walk(f, None, scan=True):
                    pass

    def _error(self, description, offset=None):
        return RecordingError(self.path, description, offset)

    def _read_start(self, f):
        head = f.read(len(MAGIC))
        if head != MAGIC:
            if len(head) < len(MAGIC) and MAGIC.startswith(head) and head:
                raise self._error("is cut short before its header", len(head))
            raise self._error("is not an MCAP file: it does not start with the MCAP magic", 0)
        raw = f.read(_RECORD.size)
        if len(raw) < _RECORD.size:
            raise self._error("is cut short before its header", len(MAGIC))
        opcode, length = _RECORD.unpack(raw)
        if opcode != HEADER:
            raise self._error("starts with a record of opcode 0x%02x, not a header" % opcode,
                              len(MAGIC))
        if length > self._size - f.tell():
            raise self._error("is cut short in its header", len(MAGIC))
        body = f.read(length)
        self.header = self._parse(HEADER, body, len(MAGIC) + _RECORD.size)
        self._data_start = f.tell()
        self._start_crc = zlib.crc32(body, zlib.crc32(raw, zlib.crc32(head)))

    def _parse(self, opcode, body, offset):
        """Parses a record body found at file offset `offset`."""
        c = _Cursor(memoryview(body))
        try:
            if opcode == HEADER:
                return Header(c.string("profile"), c.string("library"))
            if opcode == SCHEMA:
                return _parse_schema(c)
            if opcode == CHANNEL:
                return _parse_channel(c)
            if opcode == STATISTICS:
                return _parse_statistics(c)
            if opcode == CHUNK_INDEX:
                return _parse_chunk_index(c)
            if opcode == SUMMARY_OFFSET:
                return c.unpack("<BQQ", "summary offset")
            return None
        except _Malformed as e:
            raise self._error("malformed record (opcode 0x%02x): %s" % (opcode, e),
                              offset + e.at) from None

    def _read_tail(self, f):
        """Reads footer and summary; False when the file has no footer (it was cut short), or
        no summary to say what it holds."""
        footer_at = self._size - _TAIL
        f.seek(max(footer_at, 0))
        tail = f.read(_TAIL)
        if footer_at < self._data_start + _DATA_END_SIZE or tail[-len(MAGIC):] != MAGIC:
            return self._cut(self._size, "cut short at byte %d, before its footer" % self._size)
        opcode, length = _RECORD.unpack_from(tail)
        if opcode != FOOTER or length != _FOOTER_BODY:
            raise self._error("ends with the MCAP magic but no footer before it", footer_at)
        summary_at, offsets_at, summary_crc = struct.unpack_from("<QQI", tail, _RECORD.size)
        summary_end = offsets_at or footer_at
        if summary_at and not (self._data_start + _DATA_END_SIZE <= summary_at <= summary_end
                               <= footer_at):
            raise self._error("its footer places the summary outside the file", footer_at)
        if offsets_at and not summary_at <= offsets_at <= footer_at:
            raise self._error("its footer places the summary offsets outside the file", footer_at)
        f.seek(summary_at or footer_at)
        summary = f.read(footer_at - (summary_at or footer_at))
        if summary_crc and zlib.crc32(tail[:_TAIL - 4 - len(MAGIC)],
                                      zlib.crc32(summary)) != summary_crc:
            raise self._error("the CRC of its summary does not match", summary_at or footer_at)
        self._data_end = (summary_at or footer_at) - _DATA_END_SIZE
        f.seek(self._data_end)
        opcode, length = _RECORD.unpack(f.read(_RECORD.size))
        if opcode != DATA_END or length != 4:
            raise self._error("has no data end record before its summary", self._data_end)
        if not summary_at:
            return False
        channels, pos = {}, 0
        while pos < len(summary):
            if len(summary) - pos < _RECORD.size:
                raise self._error("its summary ends inside a record", summary_at + pos)
            opcode, length = _RECORD.unpack_from(summary, pos)
            at, pos = summary_at + pos, pos + _RECORD.size + length
            if pos > len(summary):
                raise self._error("a record of its summary runs past the footer", at)
            if opcode in (HEADER, FOOTER, MESSAGE, CHUNK, DATA_END, MESSAGE_INDEX):
                raise self._error("its summary holds a record of opcode 0x%02x" % opcode, at)
            record = self._parse(opcode, summary[pos - length:pos], at + _RECORD.size)
            if opcode == SCHEMA:
                self.schemas[record.id] = record
            elif opcode == CHANNEL:
                channels[record.id] = record
            elif opcode == STATISTICS:
                self.statistics = record
            elif opcode == CHUNK_INDEX:
                self.chunk_indexes.append(record)
            elif opcode == SUMMARY_OFFSET and not (
                    summary_at <= record[1] and record[1] + record[2] <= summary_end):
                raise self._error("a summary offset points outside the summary", at)
        self.channels = channels
        if self.statistics is None or set(self.statistics.channel_message_counts) - set(channels):
            self.schemas, self.channels = {}, {}
            return False
        self.message_counts = dict(self.statistics.channel_message_counts)
        if self.statistics.message_count:
            self.start_time = self.statistics.message_start_time
            self.end_time = self.statistics.message_end_time
        return True

    def _cut(self, offset, why):
        self.complete, self._data_end = False, None
        self.damage_offset = offset
        self.damage = why
        return False

    def messages(self, channel_ids=None):
        """Every message in file order, or only those of the channels in `channel_ids`. Raises
        RecordingError for damage met on the way (after the messages before it)."""
        with open(self.path, "rb") as f:
            yield from self._walk(f, None if channel_ids is None else set(channel_ids), False)

    def _walk(self, f, wanted, scan):
        """The data section, record by record, with the CRCs checked. With `scan` (a file
        without summary), it also gathers schemas, channels and counts, and where it stops."""
        skip = {}
        if wanted is not None:
            skip = {i.chunk_start_offset: not (wanted & set(i.message_index_offsets))
                    for i in self.chunk_indexes if i.message_index_offsets}
        crc, pos = self._start_crc, self._data_start
        f.seek(pos)
        known_end = self._data_end is not None
        limit = self._data_end + _DATA_END_SIZE if known_end else self._size
        while True:
            raw = f.read(_RECORD.size) if limit - pos >= _RECORD.size else b""
            if len(raw) < _RECORD.size:
                if known_end:
                    raise self._error("its data section runs past its data end record", pos)
                if scan:
                    self._cut(pos, "cut short at byte %d, %s" % (self._size, "after a complete "
                              "record" if pos == self._size else "inside the header of a record"))
                return
            opcode, length = _RECORD.unpack(raw)
            if length > limit - pos - _RECORD.size:
                if known_end:
                    raise self._error("a record of opcode 0x%02x and %d bytes runs past the data"
                                      " section" % (opcode, length), pos)
                if scan:
                    self._cut(pos, "cut short at byte %d, inside a record of opcode 0x%02x and "
                              "%d bytes at byte %d" % (self._size, opcode, length, pos))
                return
            body = f.read(length)
            if opcode == DATA_END:
                if known_end and pos != self._data_end:
                    raise self._error("a data end record before the end of the data", pos)
                declared = struct.unpack_from("<I", body)[0] if length >= 4 else 0
                if declared and declared != crc:
                    raise self._error("the CRC of its data section does not match", pos)
                if scan and not known_end:
                    self._cut(pos + _RECORD.size + length, "cut short at byte %d, after its data "
                              "end record (all its data is read) but before a valid footer"
                              % self._size)
                return
            crc = zlib.crc32(body, zlib.crc32(raw, crc))
            if opcode in (HEADER, FOOTER) or opcode == 0:
                raise self._error("a record of opcode 0x%02x in the data section" % opcode, pos)
            if opcode == CHUNK:
                if not skip.get(pos):
                    yield from self._chunk(body, pos, wanted, scan)
            else:
                yield from self._record(opcode, body, pos, wanted, scan)
            pos += _RECORD.size + length

    def _chunk(self, body, pos, wanted, scan):
        c = _Cursor(memoryview(body))
        try:
            _, _, size, crc = c.unpack("<QQQI", "chunk")
            compression = c.string("compression")
            data = c.take(c.u64("records length"), "chunk records")
            records = _decompressed(compression, data, size)
        except _Malformed as e:
            raise self._error("malformed chunk: %s" % e, pos) from None
        if crc and zlib.crc32(records) != crc:
            raise self._error("the CRC of the chunk does not match its records", pos)
        inner = 0
        while inner < len(records):
            if len(records) - inner < _RECORD.size:
                raise self._error("the records of the chunk end inside a record", pos)
            opcode, length = _RECORD.unpack_from(records, inner)
            start, inner = inner, inner + _RECORD.size + length
            if inner > len(records):
                raise self._error("a record at byte %d of the chunk's records runs past their "
                                  "end" % start, pos)
            if opcode not in (SCHEMA, CHANNEL, MESSAGE) and opcode <= DATA_END:
                raise self._error("a record of opcode 0x%02x inside a chunk" % opcode, pos)
            yield from self._record(opcode, memoryview(records)[inner - length:inner], pos,
                                    wanted, scan, start)

    def _record(self, opcode, body, pos, wanted, scan, inner=None):
        """One schema, channel or message at file offset `pos` (or at `inner` within the records
        of the chunk there); other records are skipped."""
        where = "" if inner is None else " (byte %d of the records of the chunk)" % inner
        if opcode == MESSAGE:
            try:
                m = _parse_message(body)
            except _Malformed as e:
                raise self._error(str(e) + where, pos) from None
            if m.channel_id not in self.channels:
                raise self._error("a message on channel %d before its channel record%s" % (
                    m.channel_id, where), pos)
            if scan:
                self.message_counts[m.channel_id] = self.message_counts.get(m.channel_id, 0) + 1
                t = m.log_time
                self.start_time = t if self.start_time is None else min(self.start_time, t)
                self.end_time = t if self.end_time is None else max(self.end_time, t)
            if wanted is None or m.channel_id in wanted:
                yield m
        elif opcode in (SCHEMA, CHANNEL):
            at = pos + _RECORD.size if inner is None else pos
            r = self._parse(opcode, body, at)
            known = (self.schemas if opcode == SCHEMA else self.channels).get(r.id)
            if opcode == CHANNEL and known is None and not scan:
                raise self._error("channel %d is missing from the summary%s" % (r.id, where), pos)
            if known is not None and known != r:
                raise self._error("%s %d is redefined differently%s" % (
                    "schema" if opcode == SCHEMA else "channel", r.id, where), pos)
            if scan:
                (self.schemas if opcode == SCHEMA else self.channels)[r.id] = r
