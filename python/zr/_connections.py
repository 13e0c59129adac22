"""The connections of a client: one I/O thread owns every ZeroMQ socket (a DEALER per host it
calls, one ROUTER where it takes calls), sends heartbeats, judges peers dead, and hands what
arrives to the hosting and stream layers. Other threads reach it through a command queue."""

import collections
import concurrent.futures
import itertools
import logging
import os
import queue
import struct
import threading
import time

import zmq
from zmq.auth.thread import ThreadAuthenticator

from . import _wire as w
from ._errors import ZRError

log = logging.getLogger("zr")

MODULE_DESTROYED = "module destroyed"


def now():
    return time.monotonic()


_Pending = collections.namedtuple("_Pending", "future module method expires")  # a call's wait


class _OutPeer:
    """A DEALER connected to one host's endpoint, and the calls pending on it."""

    def __init__(self, sock, endpoint):
        self.sock = sock
        self.endpoint = endpoint
        self.opened = now()
        self.last_heard = self.heartbeat = None
        self.pending = {}


class _InPeer:
    """A host that connected to our ROUTER."""

    def __init__(self):
        self.last_heard, self.heartbeat = now(), None


class _AllowList:
    """The client keys (Z85) a CURVE listener admits."""

    def __init__(self, keys):
        self.keys = set(keys)

    def callback(self, domain, key):
        return key in self.keys


class Connections:
    """The I/O thread and its sockets. The handlers (set before start) run on the I/O thread and
    must not block: on_tick(now) each heartbeat, on_call(ident, message), on_cancel(ident, id),
    on_data(ident, message)."""

    def __init__(self, name, heartbeat, listen, advertise, curve):
        self.name = name
        self.heartbeat = heartbeat
        self._listen, self._advertise, self._curve = listen, advertise, curve
        self.on_tick = self.on_call = self.on_cancel = self.on_data = None
        self._ctx = zmq.Context()
        self._poller = zmq.Poller()
        self._wake_r, self._wake_w = os.pipe()
        os.set_blocking(self._wake_r, False)
        os.set_blocking(self._wake_w, False)  # a full pipe already wakes the I/O thread
        self._poller.register(self._wake_r, zmq.POLLIN)
        self._commands = queue.SimpleQueue()
        self._out = {}          # endpoint -> _OutPeer
        self._by_sock = {}      # DEALER -> _OutPeer
        self._router = None
        self._auth = None       # the router's allow-list, under CURVE
        self.server_keys = {}   # endpoint -> the CURVE key it listens with, when not the hosts'
        self._monitor = None    # the router's connections coming and going
        self._connections = 0
        self.endpoint = ""
        self._in = {}           # routing identity -> _InPeer
        self._ids = itertools.count(1)
        self._seq = itertools.count(1)
        self._running = False
        self._closed = False
        self._thread = threading.Thread(target=self._run, name="zr-io", daemon=True)

    def start(self):
        self._thread.start()

    @property
    def alive(self):
        return self._thread.is_alive()

    @property
    def running(self):
        """True while the I/O thread serves (read on the I/O thread)."""
        return self._running

    # ---- threads other than the I/O thread -------------------------------------------------

    def submit(self, fn):
        self._commands.put(fn)
        try:
            os.write(self._wake_w, b"x")
        except BlockingIOError:
            pass

    def submit_wait(self, fn):
        """Runs fn(future) on the I/O thread; its result."""
        f = concurrent.futures.Future()
        if self._closed and not self._thread.is_alive():
            raise ZRError("zrnet", "call", "the client is closed")
        self.submit(lambda: fn(f))
        return f.result()

    def call_endpoint(self, endpoint, module, method_name, body, blocks, deadline):
        """A future of the call's result."""
        f = concurrent.futures.Future()
        if not self._thread.is_alive():
            f.set_exception(ZRError(module, method_name, "the client is closed"))
            return f
        self.submit(lambda: self.start_call(endpoint, module, method_name, body, blocks,
                                            deadline, f))
        return f

    def listen(self):
        """Binds the ROUTER once; this client's endpoint."""
        return self.submit_wait(self._listen_now)


    def stop(self):
        """Says bye to every peer, waits for callers to hang up, closes the sockets."""
        self._closed = True
        if self._thread.is_alive():
            self.submit(self._stop)
            self._thread.join()
        if self._auth is not None:
            self._auth.stop()
        self._ctx.term()
        os.close(self._wake_r)
        os.close(self._wake_w)

    # ---- the I/O thread ---------------------------------------------------------------------

    def send_router(self, ident, frames):
        """Sends frames to a host that connected to us (a reply, a credit)."""
        if self._router is not None:
            self._send(self._router, [ident] + frames)

    def start_call(self, endpoint, module, method_name, body, blocks, deadline, future):
        peer = self._peer_for(endpoint)
        call_id = next(self._ids)
        fields = {"id": call_id, "seq": next(self._seq), "module": module, "method": method_name,
                  "caller": self.name,
                  "deadline": None if deadline is None else max(1, int(deadline * 1000))}
        expires = None if deadline is None else now() + deadline
        peer.pending[call_id] = _Pending(future, module, method_name, expires)
        self._send(peer.sock, w.message(w.CALL, fields, body, blocks))

    def _run(self):
        self._running = True
        next_tick = now()
        while self._running:
            t = now()
            if t >= next_tick:
                self._tick(t)
                next_tick = t + self.heartbeat
            timeout = max(0.0, min(next_tick, self._next_expiry()) - now())
            try:
                ready = dict(self._poller.poll(timeout * 1000))
            except zmq.ZMQError as e:
                log.warning("zr: poll failed: %s", e)
                continue
            if self._wake_r in ready:
                try:
                    while os.read(self._wake_r, 4096):
                        pass
                except BlockingIOError:
                    pass
            while True:
                try:
                    cmd = self._commands.get_nowait()
                except queue.Empty:
                    break
                try:
                    cmd()
                except Exception:
                    log.exception("zr: a command of the I/O thread failed")
            for sock in list(ready):
                if sock is self._monitor:
                    self._count_connections()
                elif sock is self._router:
                    self._drain(sock, self._on_router)
                elif sock in self._by_sock:
                    peer = self._by_sock[sock]
                    self._drain(sock, lambda frames: self._on_dealer(peer, frames))
            self._expire(now())
        self._shutdown_sockets()

    def _drain(self, sock, handler):
        for _ in range(1000):  # then let the others have a turn
            try:
                frames = sock.recv_multipart(zmq.NOBLOCK, copy=False)
            except zmq.Again:
                return
            except zmq.ZMQError as e:
                log.warning("zr: receive failed: %s", e)
                return
            try:
                handler(frames)
            except Exception:
                log.exception("zr: dropped a message that could not be handled")
            if sock.closed:  # the handler dropped its peer (a bye)
                return

    def _stop(self):
        self._running = False

    def _shutdown_sockets(self):
        bye = w.message(w.BYE)
        for peer in list(self._out.values()):
            self._send(peer.sock, bye)
            self._drop_out(peer, "the host is shutting down")
        if self._router is not None:
            for ident in list(self._in):
                self._send(self._router, [ident] + bye)
            self._await_callers_gone()
            self._router.close(linger=200)
            self._router = None
            self._monitor.close(linger=0)
            self._monitor = None

    def _count_connections(self):
        while True:
            try:
                event = self._monitor.recv_multipart(zmq.NOBLOCK)
            except zmq.Again:
                return
            kind = struct.unpack_from("=H", event[0])[0] if len(event[0]) >= 2 else 0
            if kind == zmq.EVENT_ACCEPTED:
                self._connections += 1
            elif kind == zmq.EVENT_DISCONNECTED:
                self._connections = max(0, self._connections - 1)

    def _await_callers_gone(self):
        # Closing the router under a caller's open connection races in ZeroMQ with that
        # connection failing: a C++ caller closing its side on our bye, mid-send, may abort.
        # Callers hang up when told bye; wait for that, a heartbeat at most.
        until = now() + self.heartbeat
        self._count_connections()
        while self._connections > 0 and now() < until:
            self._monitor.poll((until - now()) * 1000)
            self._count_connections()

    def _send(self, sock, frames):
        try:
            sock.send_multipart(frames, zmq.NOBLOCK, copy=False)
        except zmq.Again:
            # No connection (yet, or a refused handshake) or a full queue: the message is lost;
            # a call lost so fails as its peer does, when no hello comes back.
            log.debug("zr: a peer does not take messages now, one was dropped")
        except zmq.ZMQError as e:
            log.warning("zr: send failed: %s", e)

    def _hello(self):
        return w.message(w.HELLO, {"host": self.name, "endpoint": self.endpoint,
                                   "heartbeat": int(self.heartbeat * 1000)})

    def _listen_now(self, f):
        if self._router is None:
            r = self._ctx.socket(zmq.ROUTER)
            r.setsockopt(zmq.LINGER, 0)
            if self._curve:
                # Hosts reach us with the key pair we publish our names with, and only the hosts'
                # key and our own are admitted, as a C++ client's listener does.
                public, secret, server = self._curve
                self._auth = ThreadAuthenticator(self._ctx)
                self._auth.start()
                self._auth.configure_curve_callback("*", _AllowList({public, server}))
                r.curve_server = True
                r.curve_publickey, r.curve_secretkey = public, secret
            r.bind(self._listen)
            self._router = r
            self.endpoint = self._advertise or r.getsockopt_string(zmq.LAST_ENDPOINT)
            self._poller.register(r, zmq.POLLIN)
            self._monitor = r.get_monitor_socket(zmq.EVENT_ACCEPTED | zmq.EVENT_DISCONNECTED)
            self._poller.register(self._monitor, zmq.POLLIN)
            # Hosts called before knew no endpoint of ours: hello again, as our modules' host.
            for peer in self._out.values():
                self._send(peer.sock, self._hello())
        f.set_result(self.endpoint)

    def _peer_for(self, endpoint):
        peer = self._out.get(endpoint)
        if peer is None:
            s = self._ctx.socket(zmq.DEALER)
            s.setsockopt(zmq.LINGER, 0)
            if self._curve:
                public, secret, server = self._curve
                s.curve_publickey, s.curve_secretkey = public, secret
                s.curve_serverkey = self.server_keys.get(endpoint, server)
            s.connect(endpoint)
            peer = _OutPeer(s, endpoint)
            self._out[endpoint] = peer
            self._by_sock[s] = peer
            self._poller.register(s, zmq.POLLIN)
            self._send(s, self._hello())
        return peer

    def _drop_out(self, peer, description):
        for p in peer.pending.values():
            if not p.future.done():
                p.future.set_exception(ZRError(p.module, p.method, description))
        peer.pending.clear()
        self._poller.unregister(peer.sock)
        peer.sock.close(linger=0)
        self._by_sock.pop(peer.sock, None)
        if self._out.get(peer.endpoint) is peer:
            del self._out[peer.endpoint]

    def _next_expiry(self):
        e = float("inf")
        for peer in self._out.values():
            for p in peer.pending.values():
                if p.expires is not None and p.expires < e:
                    e = p.expires
        return e

    def _expire(self, t):
        for peer in list(self._out.values()):
            for call_id, p in list(peer.pending.items()):
                if p.expires is not None and t >= p.expires:
                    del peer.pending[call_id]
                    self._send(peer.sock, w.message(w.CANCEL, {"id": call_id}))
                    p.future.set_exception(ZRError(p.module, p.method, "deadline exceeded"))

    def _tick(self, t):
        ping = w.message(w.PING)
        for peer in list(self._out.values()):
            if peer.heartbeat is None:
                # No hello back: unreachable after 2 s (or 3 of our intervals, if longer).
                if t - peer.opened > max(2.0, 3 * self.heartbeat):
                    self._drop_out(peer, MODULE_DESTROYED)
                    continue
            elif t - peer.last_heard > 3 * max(peer.heartbeat, self.heartbeat):
                self._drop_out(peer, MODULE_DESTROYED)
                continue
            self._send(peer.sock, ping)
        for ident, p in list(self._in.items()):
            if t - p.last_heard > 3 * max(p.heartbeat or 0, self.heartbeat):
                del self._in[ident]
            else:
                self._send(self._router, [ident] + ping)
        if self.on_tick:
            self.on_tick(t)

    def _on_dealer(self, peer, frames):
        if self._out.get(peer.endpoint) is not peer:
            return
        peer.last_heard = now()  # any message is a sign of life, even one we drop
        try:
            m = w.decode(frames)
        except w.WireError as e:
            log.warning("zr: dropped a message from %s: %s", peer.endpoint, e.reason)
            return
        if m.type == w.HELLO:
            peer.heartbeat = m.envelope["heartbeat"] / 1000.0
        elif m.type in (w.REPLY, w.ERROR):
            p = peer.pending.pop(m.envelope["id"], None)
            if p is None:
                if m.type == w.ERROR and m.envelope["id"] == 0:
                    log.warning("zr: %s refused us: %s", peer.endpoint,
                                m.envelope["description"])
                return
            if m.type == w.REPLY:
                p.future.set_result(m.body)
            else:
                e = m.envelope
                p.future.set_exception(ZRError(e["module"], e["method"], e["description"]))
        elif m.type == w.BYE:
            self._drop_out(peer, MODULE_DESTROYED)
        elif m.type not in (w.PING, w.CREDIT, w.STREAM_ERROR):
            log.warning("zr: dropped an unexpected message of type %d from %s", m.type,
                        peer.endpoint)

    def _on_router(self, frames):
        ident = frames[0].bytes
        frames = frames[1:]
        peer = self._in.get(ident)
        try:
            m = w.decode(frames)
        except w.WireError as e:
            log.warning("zr: dropped a message from a peer: %s", e.reason)
            env = e.envelope or {}
            if e.msg_type == w.CALL and "id" in env:
                self._send(self._router, [ident] + w.message(w.ERROR, {
                    "id": env["id"], "module": env.get("module", ""),
                    "method": env.get("method", ""), "description": e.reason}))
            elif e.reason.startswith("protocol version mismatch"):
                self._send(self._router, [ident] + w.message(w.ERROR, {
                    "id": 0, "module": "zrnet", "method": "hello", "description": e.reason}))
            return
        if peer is None:
            if m.type == w.BYE:
                return
            peer = self._in[ident] = _InPeer()
        peer.last_heard = now()
        if m.type == w.HELLO:
            peer.heartbeat = m.envelope["heartbeat"] / 1000.0
            self._send(self._router, [ident] + self._hello())
        elif m.type == w.CALL:
            self.on_call(ident, m)
        elif m.type == w.DATA:
            self.on_data(ident, m)
        elif m.type == w.CANCEL:
            self.on_cancel(ident, m.envelope["id"])
        elif m.type == w.BYE:
            del self._in[ident]
        elif m.type not in (w.PING,):
            log.warning("zr: dropped an unexpected message of type %d", m.type)
