"""The ZR wire protocol, version 2: frames, envelopes and values (see docs/protocol.md).

Pure functions, safe from any thread. Decoding never copies a binary block: a received binary
becomes a memoryview onto the received frame.
"""

import struct

import msgpack

from ._errors import ZRError

VERSION = 2
HELLO, CALL, REPLY, ERROR, CANCEL, DATA, CREDIT, PING, BYE, STREAM_ERROR = range(1, 11)
MAX_DEPTH = 32
INT_MIN, INT_MAX = -(2**31), 2**31 - 1
BINARY_EXT = 1

# Envelope keys per type, in the order encoders write them; True marks an optional key.
ENVELOPES = {
    HELLO: (("host", str, False), ("endpoint", str, False), ("heartbeat", int, False)),
    CALL: (("id", int, False), ("seq", int, False), ("module", str, False), ("method", str, False),
           ("caller", str, False), ("deadline", int, True)),
    REPLY: (("id", int, False),),
    ERROR: (("id", int, False), ("module", str, False), ("method", str, False),
            ("description", str, False)),
    CANCEL: (("id", int, False),),
    DATA: (("stream", str, False), ("seq", int, False), ("module", str, False),
           ("method", str, False), ("caller", str, False), ("lossless", bool, True),
           ("captured", int, True)),
    CREDIT: (("stream", str, False), ("credits", int, False), ("delay", int, True)),
    PING: (),
    BYE: (),
    STREAM_ERROR: (("stream", str, False), ("seq", int, False), ("module", str, False),
                   ("method", str, False), ("description", str, False)),
}


class WireError(Exception):
    """A message that breaks a rule of the protocol. `envelope` is set when the envelope could be
    read, so that a call can be answered with an error."""

    def __init__(self, reason, msg_type=None, envelope=None):
        super().__init__(reason)
        self.reason = reason
        self.msg_type = msg_type
        self.envelope = envelope


class Message:
    __slots__ = ("type", "envelope", "body")

    def __init__(self, msg_type, envelope, body):
        self.type = msg_type
        self.envelope = envelope
        self.body = body


def _packer():
    # Floats are 32-bit on the wire; strings go as given (lone surrogates round-trip bytes that
    # were not UTF-8).
    return msgpack.Packer(use_single_float=True, use_bin_type=True,
                          unicode_errors="surrogateescape")


class _Encoder:
    def __init__(self, module, method):
        self.blocks = []
        self.module = module
        self.method = method

    def fail(self, text):
        raise ZRError(self.module, self.method, text)

    def value(self, v, depth=1):
        if depth > MAX_DEPTH:
            self.fail("a value is nested more than %d deep" % MAX_DEPTH)
        if v is None or isinstance(v, bool) or isinstance(v, str):
            return v
        if isinstance(v, int):
            if not INT_MIN <= v <= INT_MAX:
                self.fail("the int %d does not fit in 32 bits (%d to %d)" % (v, INT_MIN, INT_MAX))
            return v
        if isinstance(v, float):
            return v
        if isinstance(v, (bytes, bytearray, memoryview)):
            view = memoryview(v)
            if not view.c_contiguous:
                self.fail("a binary value must be contiguous")
            view = view.cast("B") if view.format != "B" or view.ndim != 1 else view
            index = len(self.blocks)
            if len(view) > 0xFFFFFFFF:
                self.fail("a binary value is larger than 4 GiB")
            self.blocks.append(view)
            return msgpack.ExtType(BINARY_EXT, struct.pack(">II", index, len(view)))
        if isinstance(v, (list, tuple)):
            return [self.value(x, depth + 1) for x in v]
        self.fail("a %s cannot be sent as a ZRValue (bool, int, float, str, bytes, list or None)"
                  % type(v).__name__)


def encode_values(values, module="", method=""):
    """(body bytes, binary blocks) for a value; ZRError(module, method, ...) for what no ZRValue
    can hold."""
    enc = _Encoder(module, method)
    tree = enc.value(values)
    return _packer().pack(tree), enc.blocks


def header(msg_type):
    return bytes((0x5A, 0x52, VERSION, msg_type, 0))


def encode_envelope(msg_type, fields):
    ordered = {}
    for key, _kind, optional in ENVELOPES[msg_type]:
        if key in fields and fields[key] is not None:
            ordered[key] = fields[key]
        elif not optional:
            raise ValueError("envelope key %r is required" % key)
    return _packer().pack(ordered)


NIL = b"\xc0"


def message(msg_type, fields=None, body=NIL, blocks=()):
    """The frames of one message."""
    return [header(msg_type), encode_envelope(msg_type, fields or {}), body, *blocks]


def _unpack_one(data, what):
    try:
        return msgpack.unpackb(bytes(data), raw=False, unicode_errors="surrogateescape",
                               strict_map_key=False, use_list=True, timestamp=0,
                               ext_hook=_ext_hook)
    except msgpack.ExtraData:
        raise WireError("the %s has bytes after its msgpack object" % what) from None
    except (ValueError, msgpack.UnpackException, TypeError) as e:
        raise WireError("the %s is not one msgpack object: %s" % (what, e)) from None


class _BinRef:
    __slots__ = ("index", "offset", "size")

    def __init__(self, index, size, offset=None):
        self.index = index
        self.size = size
        self.offset = offset  # None: the whole frame


class _BadExt:
    __slots__ = ("code", "length")

    def __init__(self, code, length):
        self.code = code
        self.length = length


def _ext_hook(code, data):
    if code == BINARY_EXT and len(data) == 8:
        return _BinRef(*struct.unpack(">II", data))
    if code == BINARY_EXT and len(data) == 12:  # a block packed with others in one frame
        index, offset, size = struct.unpack(">III", data)
        return _BinRef(index, size, offset)
    return _BadExt(code, len(data))


def _depth_of(obj):
    # Iterative, so that a hostile message cannot exhaust the recursion limit.
    deepest, stack = 0, [(obj, 1)]
    while stack:
        o, d = stack.pop()
        deepest = max(deepest, d)
        if d > MAX_DEPTH:
            return d
        if isinstance(o, list):
            stack.extend((x, d + 1) for x in o)
        elif isinstance(o, dict):
            stack.extend((x, d + 1) for x in o.values())
    return deepest


def _to_value(obj, blocks, used):
    if obj is None or isinstance(obj, (bool, str)):
        return obj
    if isinstance(obj, int):
        if not INT_MIN <= obj <= INT_MAX:
            raise WireError("an int value %d is outside 32 bits" % obj)
        return obj
    if isinstance(obj, float):
        return struct.unpack("<f", struct.pack("<f", obj))[0] if obj == obj else obj
    if isinstance(obj, _BinRef):
        if obj.index >= len(blocks):
            raise WireError("a binary value names frame %d, the message has %d binary frame(s)"
                            % (obj.index, len(blocks)))
        view = blocks[obj.index]
        used.add(obj.index)
        if obj.offset is None:
            if len(view) != obj.size:
                raise WireError("a binary value declares %d bytes, its frame has %d"
                                % (obj.size, len(view)))
            return view
        if obj.offset % 8:
            raise WireError("a binary value starts at byte %d, not a multiple of 8" % obj.offset)
        if obj.offset + obj.size > len(view):
            raise WireError("a binary value declares %d bytes at byte %d, its frame has %d"
                            % (obj.size, obj.offset, len(view)))
        return view[obj.offset:obj.offset + obj.size]
    if isinstance(obj, list):
        return [_to_value(x, blocks, used) for x in obj]
    if isinstance(obj, dict):
        raise WireError("a map is not a value")
    if isinstance(obj, (bytes, bytearray)):
        raise WireError("msgpack bin is not a value")
    if isinstance(obj, _BadExt):
        raise WireError("ext type %d of %d bytes is not a value" % (obj.code, obj.length))
    raise WireError("a %s is not a value" % type(obj).__name__)


def _frame_view(frame):
    # Read-only: the same frame may be shared by several values (a fan-out, a repeated index).
    view = frame if isinstance(frame, memoryview) else memoryview(frame)
    return view.toreadonly()


def decode(frames):
    """A Message from received frames (zmq.Frame, bytes or memoryview); WireError otherwise."""
    if len(frames) < 3:
        raise WireError("a message has %d frame(s), at least 3 are needed" % len(frames))
    head = bytes(_frame_view(frames[0]))
    if len(head) != 5 or head[:2] != b"ZR":
        raise WireError("the header is not 5 bytes starting with \"ZR\"")
    if head[2] != VERSION:
        raise WireError("protocol version mismatch: peer speaks version %d, this host speaks "
                        "version %d" % (head[2], VERSION), msg_type=head[3])
    msg_type = head[3]
    if msg_type not in ENVELOPES:
        raise WireError("unknown message type %d" % msg_type)
    if head[4] != 0:
        raise WireError("the flags byte is %d, no flag is defined in version %d" % (head[4], VERSION))
    env = _unpack_one(_frame_view(frames[1]), "envelope")
    if not isinstance(env, dict) or _depth_of(env) > MAX_DEPTH:
        raise WireError("the envelope is not a map", msg_type)
    envelope = {}
    for key, kind, optional in ENVELOPES[msg_type]:
        if key not in env:
            if optional:
                continue
            raise WireError("the envelope has no %r" % key, msg_type, envelope or None)
        v = env[key]
        if kind is str:
            ok = isinstance(v, str)
        elif kind is bool:
            ok = isinstance(v, bool)
        else:
            ok = isinstance(v, int) and not isinstance(v, bool) and v >= 0
        if not ok:
            raise WireError("the envelope's %r has the wrong type" % key, msg_type,
                            envelope or None)
        envelope[key] = v
    blocks = [_frame_view(f) for f in frames[3:]]
    try:
        raw = _unpack_one(_frame_view(frames[2]), "body")
        if _depth_of(raw) > MAX_DEPTH:
            raise WireError("the body is nested more than %d deep" % MAX_DEPTH)
        used = set()
        body = _to_value(raw, blocks, used)
        if len(used) != len(blocks):
            raise WireError("binary frame(s) %s are not referenced"
                            % sorted(set(range(len(blocks))) - used))
        if msg_type in (CALL, DATA) and not isinstance(body, list):
            raise WireError("the arguments are not an array")
    except WireError as e:
        e.msg_type, e.envelope = msg_type, envelope
        raise
    return Message(msg_type, envelope, body)
