"""The codec against the document's golden bytes, both ways, and the rules a receiver enforces."""

import pytest

import zr
from zr import _wire as w

H = bytes.fromhex

MESSAGES = [
    (w.HELLO, {"host": "h", "endpoint": "e", "heartbeat": 250}, None,
     "5a52010100|83a4686f7374a168a8656e64706f696e74a165a9686561727462656174ccfa|c0"),
    (w.CALL, {"id": 7, "seq": 1, "module": "M", "method": "m", "caller": "c"}, [1, "x"],
     "5a52010200|85a2696407a373657101a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163|9201a178"),
    (w.CALL, {"id": 7, "seq": 1, "module": "M", "method": "m", "caller": "c", "deadline": 500},
     [1, "x"], "5a52010200|86a2696407a373657101a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163"
     "a8646561646c696e65cd01f4|9201a178"),
    (w.REPLY, {"id": 7}, 3, "5a52010300|81a2696407|03"),
    (w.ERROR, {"id": 7, "module": "M", "method": "m", "description": "boom"}, None,
     "5a52010400|84a2696407a66d6f64756c65a14da66d6574686f64a16dab6465736372697074696f6ea4626f6f6d|c0"),
    (w.CANCEL, {"id": 7}, None, "5a52010500|81a2696407|c0"),
    (w.DATA, {"stream": "s", "seq": 2, "module": "M", "method": "m", "caller": "c"},
     [b"\xab\xcd"], "5a52010600|85a673747265616da173a373657102a66d6f64756c65a14da66d6574686f64a16d"
     "a663616c6c6572a163|91d7010000000000000002|abcd"),
    (w.CREDIT, {"stream": "s", "credits": 4}, None, "5a52010700|82a673747265616da173a76372656469747304|c0"),
    (w.PING, {}, None, "5a52010800|80|c0"),
    (w.BYE, {}, None, "5a52010900|80|c0"),
]

VALUES = [
    (None, "c0"), (True, "c3"), (False, "c2"), (0, "00"), (-1, "ff"), (300, "cd012c"),
    (-40000, "d2ffff63c0"), (2147483647, "ce7fffffff"), (-2147483648, "d280000000"),
    (0.5, "ca3f000000"), (-1.25, "cabfa00000"), ("", "a0"), ("ab", "a26162"),
    (b"\x01\x02\x03", "d7010000000000000003|010203"), ([], "90"),
    ([1, "a", [True, None]], "9301a16192c3c0"),
    ([b"\x01\x02\x03", b"\x01"], "92d7010000000000000003d7010000000100000001|010203|01"),
]


def plain(v):
    if isinstance(v, memoryview):
        return bytes(v)
    if isinstance(v, list):
        return [plain(x) for x in v]
    return v


@pytest.mark.parametrize("msg_type,fields,args,golden", MESSAGES)
def test_golden_messages(msg_type, fields, args, golden):
    body, blocks = w.encode_values(args) if args is not None else (w.NIL, [])
    frames = [bytes(f) for f in w.message(msg_type, fields, body, blocks)]
    assert "|".join(f.hex() for f in frames) == golden
    m = w.decode([H(f) for f in golden.split("|")])
    assert (m.type, m.envelope, plain(m.body)) == (msg_type, fields, args)


@pytest.mark.parametrize("value,golden", VALUES)
def test_golden_values(value, golden):
    body, blocks = w.encode_values(value)
    assert "|".join([body.hex()] + [bytes(b).hex() for b in blocks]) == golden
    frames = [H("5a52010300"), H("81a2696407")] + [H(f) for f in golden.split("|")]
    assert plain(w.decode(frames).body) == value


def test_values_no_value_can_hold_are_refused_before_sending():
    for bad, text in [(2**31, "does not fit in 32 bits"), (-(2**31) - 1, "does not fit"),
                      ({"a": 1}, "a dict cannot be sent"), (object(), "cannot be sent")]:
        with pytest.raises(zr.ZRError) as e:
            w.encode_values([bad], "M", "m")
        assert (e.value.module, e.value.method) == ("M", "m") and text in e.value.description
    # Floats travel as 32 bits: what comes back is the float32 nearest.
    body, _ = w.encode_values(0.1)
    assert body[0] == 0xCA and len(body) == 5


REPLY = [H("5a52010300"), H("81a2696407")]
BAD = [
    ([H("5a52020300"), H("81a2696407"), H("c0")], "protocol version mismatch: peer speaks "
     "version 2, this host speaks version 1"),
    ([H("5a520103"), H("81a2696407"), H("c0")], "header"),
    ([H("5a52010a00"), H("80"), H("c0")], "unknown message type 10"),
    ([H("5a52010301"), H("81a2696407"), H("c0")], "flags"),
    (REPLY + [H("c0c0")], "bytes after"),
    ([H("5a52010300"), H("81a269640700"), H("c0")], "bytes after"),
    ([H("5a52010300"), H("80"), H("c0")], "no 'id'"),
    ([H("5a52010300"), H("81a26964ff"), H("c0")], "wrong type"),
    (REPLY + [H("81a161a162")], "map"),
    (REPLY + [H("c40101")], "bin"),
    (REPLY + [H("d7020000000000000001"), H("01")], "ext type 2"),
    (REPLY + [H("d7010000000100000001"), H("01")], "names frame 1"),
    (REPLY + [H("d7010000000000000002"), H("01")], "declares 2 bytes"),
    (REPLY + [H("c0"), H("01")], "not referenced"),
    (REPLY + [H("ce80000000")], "outside 32 bits"),
    (REPLY + [H("91" * 40 + "c0")], "nested"),
    ([H("5a52010200"), H("85a2696407a373657101a66d6f64756c65a14da66d6574686f64a16da663616c6c6572a163"),
      H("01")], "not an array"),
]


@pytest.mark.parametrize("frames,reason", BAD)
def test_garbage_is_a_wire_error(frames, reason):
    with pytest.raises(w.WireError) as e:
        w.decode(frames)
    assert reason in e.value.reason
