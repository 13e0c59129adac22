"""A hostile peer against real `zr host` processes, with frames made by hand: it cannot take a
name, stall a host for others, or make it allocate beyond what it sent."""

import threading
import time

import msgpack
import zmq

from conftest import wait_until

HEARTBEAT_MS = 250
WAIT_MS = 20000  # only an upper bound for a reply that must come


def frames(msg_type, envelope, body=None, version=2):
    return [bytes([0x5A, 0x52, version, msg_type, 0]), msgpack.packb(envelope),
            body if isinstance(body, bytes) else msgpack.packb(body)]


class Peer:
    """One DEALER connection that speaks the protocol by hand."""

    def __init__(self, ctx, endpoint, name="evil", rcvhwm=None):
        self.sock = ctx.socket(zmq.DEALER)
        self.sock.linger = 0
        if rcvhwm is not None:
            self.sock.rcvhwm = rcvhwm
            self.sock.setsockopt(zmq.RCVBUF, 4096)
        self.sock.connect(endpoint)
        self.next_id = 1
        self.sock.send_multipart(frames(1, {"host": name, "endpoint": "", "heartbeat": 250}))

    def send_call(self, module, method, args, body=None, version=2):
        call_id = self.next_id
        self.next_id += 1
        env = {"id": call_id, "seq": call_id, "module": module, "method": method, "caller": ""}
        self.sock.send_multipart(frames(2, env, args if body is None else body, version))
        return call_id

    def answer(self, call_id, timeout_ms=WAIT_MS):
        """The reply or error of the call: (type, envelope, body)."""
        deadline = time.monotonic() + timeout_ms / 1000
        while True:
            left = int((deadline - time.monotonic()) * 1000)
            assert left > 0 and self.sock.poll(left), "no answer to call %d" % call_id
            f = self.sock.recv_multipart()
            env = msgpack.unpackb(f[1])
            if f[0][3] in (3, 4) and env.get("id") == call_id:
                return f[0][3], env, msgpack.unpackb(f[2])

    def call(self, module, method, *args, timeout_ms=WAIT_MS):
        kind, env, body = self.answer(self.send_call(module, method, list(args)), timeout_ms)
        return body if kind == 3 else ("error", env["description"])


def listing(peer):
    """The directory's names: name -> (host, endpoint)."""
    reply = peer.call("ZRDirectory", "sync", "probe-sync", "", 0)
    return {c[1]: (c[2], c[3]) for c in reply[3]}


def peak_rss(pid):
    with open("/proc/%d/status" % pid) as f:
        fields = dict(line.split(":", 1) for line in f)
    return int(fields["VmHWM"].split()[0]) * 1024, int(fields["VmRSS"].split()[0]) * 1024


def test_a_name_stays_with_the_host_that_published_it(start_host):
    host = start_host("--memory", "--name", "victim")
    ctx = zmq.Context()
    try:
        evil = Peer(ctx, host.directory)
        names = wait_until(lambda: "ZRMemory" in listing(evil) and listing(evil), what="ZRMemory")
        victim_endpoint = names["ZRMemory"][1]
        # Claiming the victim's address, withdrawing its name, publishing it elsewhere: refused.
        for method, endpoint in (("publish", victim_endpoint), ("unpublish", victim_endpoint),
                                 ("publish", "tcp://127.0.0.1:1")):
            answer = evil.call("ZRDirectory", method, "evil-1", "evil", endpoint, "ZRMemory")
            assert answer == ("error", "already published by host victim (%s)" % victim_endpoint)
        assert listing(evil)["ZRMemory"] == ("victim", victim_endpoint)
        wait_until(lambda: any('refused to let host evil' in l and '"ZRMemory"' in l
                               for l in host.lines), what="the refusal's log line")
    finally:
        ctx.destroy(linger=0)


def test_a_caller_that_reads_nothing_delays_no_other(start_host):
    host = start_host("--memory")
    ctx = zmq.Context()
    try:
        good = Peer(ctx, host.directory, "good")
        wait_until(lambda: "ZRMemory" in listing(good), what="ZRMemory")
        assert good.call("ZRMemory", "insertData", "big", "x" * 65536) is None
        stuck = Peer(ctx, host.directory, "stuck", rcvhwm=1)
        for _ in range(1000):  # 64 MB of replies it never reads
            stuck.send_call("ZRMemory", "getData", ["big"])
        # Every round trip of another caller is answered while the stuck one's replies pile up,
        # and after it is cut off.
        for _ in range(200):
            assert good.call("ZRMemory", "ping", timeout_ms=5000) is True
        wait_until(lambda: any("does not read its replies" in l for l in host.lines),
                   what="the stuck caller noticed")
        wait_until(lambda: any("disconnected caller stuck" in l for l in host.lines),
                   what="the stuck caller cut off")
        assert good.call("ZRMemory", "ping", timeout_ms=5000) is True
        assert host.proc.poll() is None
    finally:
        ctx.destroy(linger=0)


def test_a_decode_bomb_costs_no_more_than_its_size(start_host):
    host = start_host("--memory")
    ctx = zmq.Context()
    try:
        peer = Peer(ctx, host.directory)
        wait_until(lambda: "ZRMemory" in listing(peer), what="ZRMemory")
        size = 16 << 20
        _, before = peak_rss(host.proc.pid)
        bombs = [
            # 16 M one-byte elements
            b"\x91\xdd" + size.to_bytes(4, "big") + b"\x00" * size,
            # arrays declaring 2^32-1 elements, nested, never filled
            b"\x91" + b"\xdd\xff\xff\xff\xff" * 30,
            # the same, each just within the bytes left
            b"\x91" + b"".join(b"\xdd" + (5 * (29 - i)).to_bytes(4, "big") for i in range(30)),
        ]
        for body in bombs:
            kind, env, _ = peer.answer(peer.send_call("ZRMemory", "insertData", None, body=body))
            assert kind == 4 and env["module"] == "ZRMemory", env
        peak, _ = peak_rss(host.proc.pid)
        assert peak - before < 4 * size, (peak, before)
        # A fan-out of 1000 calls on 1000 modules in 5 kB: refused unread.
        fan = [["ZRMemory"] * 1000] + [[]] * 1000
        peer.sock.send_multipart(frames(6, {"stream": "", "seq": 1, "module": "",
                                            "method": "ping", "caller": ""}, fan))
        wait_until(lambda: any("a fan-out of 1000 calls to 1000 modules" in l
                               for l in host.lines), what="the fan-out refused")
        assert peer.call("ZRMemory", "ping") is True
        assert "ZRMemory" in listing(peer)
    finally:
        ctx.destroy(linger=0)


def test_a_call_of_another_version_is_answered_with_an_error(start_host):
    host = start_host("--memory")
    ctx = zmq.Context()
    try:
        peer = Peer(ctx, host.directory)
        wait_until(lambda: "ZRMemory" in listing(peer), what="ZRMemory")
        kind, env, _ = peer.answer(peer.send_call("ZRMemory", "ping", [], version=3))
        assert (kind, env["module"], env["method"], env["description"]) == (
            4, "ZRMemory", "ping",
            "protocol version mismatch: peer speaks version 3, this host speaks version 2")
    finally:
        ctx.destroy(linger=0)


def test_an_event_is_raised_only_by_the_host_of_its_producer(start_host):
    memory = start_host("--memory", "--name", "memhost")
    producer = start_host("--device", "tone:440", "--realtime", "-e", "SoundLevel",
                          join=memory.directory)
    ctx = zmq.Context()
    try:
        evil = Peer(ctx, memory.directory)
        wait_until(lambda: "SoundLevel" in listing(evil), what="SoundLevel")
        wait_until(lambda: "SoundLevel/Levels" in evil.call("ZRMemory", "getExtractorEvent",
                                                            "SoundLevel"), what="its events")
        forged = evil.call("ZRMemory", "raiseEvent", "SoundLevel/Levels", [["rms", [0.0]]])
        assert forged == ("error", 'event "SoundLevel/Levels" belongs to "SoundLevel", which '
                                   'declared it; host evil may not raise it'), forged
        # Claiming the producer's address in its hello does not help without the producer's
        # connection... only CURVE stops a peer that lies; an honest stranger is refused.
        assert evil.call("ZRMemory", "raiseEvent", "free", 1) is None  # nobody's event
        assert producer.proc.poll() is None
    finally:
        ctx.destroy(linger=0)


def test_watchers_get_events_again_after_the_memory_service_restarts(start_host):
    import subprocess
    from conftest import ZR_BINARY
    directory = start_host()
    memory = start_host("--memory", "--name", "mem1", join=directory.directory)
    start_host("--device", "tone:440", "--realtime", "-e", "SoundLevel", join=directory.directory)
    watch = subprocess.Popen([ZR_BINARY, "watch", "SoundLevel/Levels", "--directory",
                              directory.directory, "-f", "jsonl"], stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL, text=True)
    lines = []
    cond = threading.Condition()

    def read():
        for line in watch.stdout:
            with cond:
                lines.append(line)
                cond.notify_all()

    threading.Thread(target=read, daemon=True).start()
    import zr
    client = zr.Client(directory.directory)
    got = []

    def on_levels(_event, _value):
        with cond:
            got.append(1)
            cond.notify_all()

    try:
        client.watch("SoundLevel/Levels", on_levels)
        with cond:
            assert cond.wait_for(lambda: len(lines) >= 3 and len(got) >= 3, 60), \
                "no events before the restart"
        memory.kill()
        with cond:
            seen, seen_py = len(lines), len(got)
        start_host("--memory", "--name", "mem2", join=directory.directory)
        # Both watchers, C++ and Python, subscribed again by their platform.
        with cond:
            assert cond.wait_for(lambda: len(lines) >= seen + 3 and len(got) >= seen_py + 3,
                                 60), "no events after the restart"
    finally:
        client.close()
        watch.kill()
        watch.wait()
