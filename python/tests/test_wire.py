"""The codec against the document's golden bytes, both ways, and the rules a receiver enforces."""

import os
import re

import pytest

import zr
from zr import _wire as w

H = bytes.fromhex

DOC = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "protocol.md")


def golden_table(heading):
    """The rows of the document's table after `heading`: label -> frames in hex, '|'-joined.
    The document is the only copy of the golden bytes."""
    rows, inside = {}, False
    with open(DOC, encoding="utf-8") as f:
        for line in f:
            line = line.rstrip("\n")
            if line.startswith(heading):
                inside = True
            if not inside:
                continue
            if rows and not line:
                break
            if line.startswith("| ") and "`" in line:
                label, _, cells = line[2:].partition(" | `")
                rows[label] = "|".join(re.findall(r"`([0-9a-f]*)`", "`" + cells))
    return rows


MESSAGE_ROWS = golden_table("## Golden messages")
MESSAGES = [
    ('hello host "h", endpoint "e", heartbeat 250',
     w.HELLO, {"host": "h", "endpoint": "e", "heartbeat": 250}, None),
    ('call id 7, seq 1, module "M", method "m", caller "c", args [1, "x"]',
     w.CALL, {"id": 7, "seq": 1, "module": "M", "method": "m", "caller": "c"}, [1, "x"]),
    ("the same call with deadline 500",
     w.CALL, {"id": 7, "seq": 1, "module": "M", "method": "m", "caller": "c", "deadline": 500},
     [1, "x"]),
    ("reply id 7, value 3", w.REPLY, {"id": 7}, 3),
    ('error id 7, "M", "m", "boom"',
     w.ERROR, {"id": 7, "module": "M", "method": "m", "description": "boom"}, None),
    ("cancel id 7", w.CANCEL, {"id": 7}, None),
    ('data stream "s", seq 2, "M", "m", "c", args [binary ab cd]',
     w.DATA, {"stream": "s", "seq": 2, "module": "M", "method": "m", "caller": "c"},
     [b"\xab\xcd"]),
    ("the same data, lossless",
     w.DATA, {"stream": "s", "seq": 2, "module": "M", "method": "m", "caller": "c",
              "lossless": True}, [b"\xab\xcd"]),
    ('credit stream "s", 4 credits', w.CREDIT, {"stream": "s", "credits": 4}, None),
    ("ping", w.PING, {}, None),
    ("bye", w.BYE, {}, None),
    ('stream error stream "s", seq 2, "M", "m", "boom"',
     w.STREAM_ERROR, {"stream": "s", "seq": 2, "module": "M", "method": "m",
                      "description": "boom"}, None),
]

VALUE_ROWS = golden_table("Values, as the body of a reply:")
VALUES = [
    ("invalid", None), ("true", True), ("false", False), ("0", 0), ("-1", -1), ("300", 300),
    ("-40000", -40000), ("2147483647", 2147483647), ("-2147483648", -2147483648),
    ("0.5", 0.5), ("-1.25", -1.25), ('""', ""), ('"ab"', "ab"),
    ("binary 01 02 03", b"\x01\x02\x03"), ("[]", []),
    ('[1, "a", [true, invalid]]', [1, "a", [True, None]]),
    ("[binary 01 02 03, binary 01]", [b"\x01\x02\x03", b"\x01"]),
]


def test_every_golden_row_is_checked():
    assert sorted(MESSAGE_ROWS) == sorted(m[0] for m in MESSAGES)
    assert sorted(VALUE_ROWS) == sorted(v[0] for v in VALUES)


def plain(v):
    if isinstance(v, memoryview):
        return bytes(v)
    if isinstance(v, list):
        return [plain(x) for x in v]
    return v


@pytest.mark.parametrize("label,msg_type,fields,args", MESSAGES)
def test_golden_messages(label, msg_type, fields, args):
    golden = MESSAGE_ROWS[label]
    body, blocks = w.encode_values(args) if args is not None else (w.NIL, [])
    frames = [bytes(f) for f in w.message(msg_type, fields, body, blocks)]
    assert "|".join(f.hex() for f in frames) == golden
    m = w.decode([H(f) for f in golden.split("|")])
    assert (m.type, m.envelope, plain(m.body)) == (msg_type, fields, args)


@pytest.mark.parametrize("label,value", VALUES)
def test_golden_values(label, value):
    golden = VALUE_ROWS[label]
    body, blocks = w.encode_values(value)
    assert "|".join([body.hex()] + [bytes(b).hex() for b in blocks]) == golden
    frames = [H("5a52020300"), H("81a2696407")] + [H(f) for f in golden.split("|")]
    assert plain(w.decode(frames).body) == value


def test_blocks_packed_in_one_frame_are_views_into_it():
    # What a C++ host sends for several small buffers: one frame, each block at a multiple of 8.
    frame = bytes(range(1, 4)) + bytes(5) + b"\x09"
    body = H("92" "c70c01000000000000000000000003" "c70c01000000000000000800000001")
    m = w.decode(REPLY + [body, frame])
    assert plain(m.body) == [b"\x01\x02\x03", b"\x09"]
    assert m.body[1].obj is m.body[0].obj  # both read the received frame


def test_values_no_value_can_hold_are_refused_before_sending():
    for bad, text in [(2**31, "does not fit in 32 bits"), (-(2**31) - 1, "does not fit"),
                      ({"a": 1}, "a dict cannot be sent"), (object(), "cannot be sent")]:
        with pytest.raises(zr.ZRError) as e:
            w.encode_values([bad], "M", "m")
        assert (e.value.module, e.value.method) == ("M", "m") and text in e.value.description
    # Floats travel as 32 bits: what comes back is the float32 nearest.
    body, _ = w.encode_values(0.1)
    assert body[0] == 0xCA and len(body) == 5


REPLY = [H("5a52020300"), H("81a2696407")]
BAD = [
    ([H("5a52010300"), H("81a2696407"), H("c0")], "protocol version mismatch: peer speaks "
     "version 1, this host speaks version 2"),
    ([H("5a520203"), H("81a2696407"), H("c0")], "header"),
    ([H("5a52020b00"), H("80"), H("c0")], "unknown message type 11"),
    ([H("5a52020301"), H("81a2696407"), H("c0")], "flags"),
    (REPLY + [H("c0c0")], "bytes after"),
    ([H("5a52020300"), H("81a269640700"), H("c0")], "bytes after"),
    ([H("5a52020300"), H("80"), H("c0")], "no 'id'"),
    ([H("5a52020300"), H("81a26964ff"), H("c0")], "wrong type"),
    (REPLY + [H("81a161a162")], "map"),
    (REPLY + [H("c40101")], "bin"),
    (REPLY + [H("d7020000000000000001"), H("01")], "ext type 2"),
    (REPLY + [H("d7010000000100000001"), H("01")], "names frame 1"),
    (REPLY + [H("d7010000000000000002"), H("01")], "declares 2 bytes"),
    (REPLY + [H("c0"), H("01")], "not referenced"),
    (REPLY + [H("c70c01000000000000000100000001"), H("0102")], "not a multiple of 8"),
    (REPLY + [H("c70c01000000000000000000000003"), H("0102")], "declares 3 bytes at byte 0"),
    (REPLY + [H("ce80000000")], "outside 32 bits"),
    (REPLY + [H("91" * 40 + "c0")], "nested"),
    ([H("5a52020200"), H("85a2696407a373657101a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163"),
      H("01")], "not an array"),
]


@pytest.mark.parametrize("frames,reason", BAD)
def test_garbage_is_a_wire_error(frames, reason):
    with pytest.raises(w.WireError) as e:
        w.decode(frames)
    assert reason in e.value.reason
