"""The client: one background I/O thread owns every ZeroMQ socket; calls come from any thread."""

import concurrent.futures
import inspect
import itertools
import logging
import os
import queue
import random
import socket
import struct
import threading
import time

import zmq

from . import _wire as w
from ._errors import ZRError

log = logging.getLogger("zr")

DEFAULT_DIRECTORY = "tcp://127.0.0.1:7470"
DIRECTORY_MODULE = "ZRDirectory"
MEMORY_MODULE = "ZRMemory"
MODULE_DESTROYED = "module destroyed"
# The platform's version, as `zr --version` gives it (the tests hold the two together).
PLATFORM_VERSION = "0.1.0"
# How long a name just published may take to reach the memory service's host.
DIRECTORY_WAIT = 3.0


def _now():
    return time.monotonic()


def _read_key_lines(path):
    with open(path) as f:
        return [l.strip() for l in f if l.strip() and not l.startswith("#")]


class _Pending:
    __slots__ = ("future", "module", "method", "expires")

    def __init__(self, future, module, method, expires):
        self.future = future
        self.module = module
        self.method = method
        self.expires = expires


class _OutPeer:
    """A DEALER connected to one host's endpoint, and the calls pending on it."""

    def __init__(self, sock, endpoint):
        self.sock = sock
        self.endpoint = endpoint
        self.opened = _now()
        self.last_heard = None
        self.heartbeat = None
        self.pending = {}


class _InPeer:
    """A host that connected to our ROUTER."""

    def __init__(self):
        self.last_heard = _now()
        self.heartbeat = None


def _type_name(annotation):
    names = {bool: "bool", int: "int", float: "float", str: "string", list: "ZRValue",
             type(None): "void", None: "void"}
    if annotation is inspect.Parameter.empty:
        return "ZRValue"
    if annotation == list[str]:
        return "list of strings"
    try:
        return names.get(annotation, "ZRValue")
    except TypeError:  # an unhashable annotation
        return "ZRValue"


def method(description="", returns=None, **params):
    """Marks a method of a hosted object as remote, with its documentation: `returns` is
    (name, documentation), each keyword a parameter's documentation. Parameter types come from
    annotations (bool, int, float, str; anything else is a ZRValue) and are checked on calls."""

    def mark(fn):
        fn._zr_doc = (description, returns, params)
        return fn

    return mark


class _Method:
    def __init__(self, name, fn, class_name):
        self.name = name
        self.fn = fn
        self.class_name = class_name
        doc = getattr(fn, "_zr_doc", None)
        if doc is None:
            text = inspect.getdoc(fn) or ""
            doc = (text.split("\n\n")[0].replace("\n", " "), None, {})
        self.description, ret, pdocs = doc
        sig = inspect.signature(fn)
        self.params = []
        for p in sig.parameters.values():
            if p.kind not in (p.POSITIONAL_ONLY, p.POSITIONAL_OR_KEYWORD):
                continue
            self.params.append((p.name, _type_name(p.annotation), pdocs.get(p.name, "")))
        self.return_type = ("void" if sig.return_annotation is None
                            else _type_name(sig.return_annotation))
        self.return_name, self.return_doc = ret if ret else ("", "")

    def signature(self):
        return "%s(%s) -> %s" % (self.name, ", ".join(t for _, t, _ in self.params),
                                 self.return_type)

    def help(self):
        out = [self.signature()]
        if self.description:
            out.append("  " + self.description)
        out += ["  %s (%s): %s" % p for p in self.params]
        if self.return_name:
            out.append("  returns %s: %s" % (self.return_name, self.return_doc))
        return "\n".join(out) + "\n"

    def accepts(self, args):
        if len(args) != len(self.params):
            return False
        ok = {"bool": lambda v: isinstance(v, bool),
              "int": lambda v: isinstance(v, int) and not isinstance(v, bool),
              "float": lambda v: isinstance(v, float), "string": lambda v: isinstance(v, str),
              "list of strings": lambda v: isinstance(v, list) and all(
                  isinstance(x, str) for x in v)}
        return all(ok.get(t, lambda v: True)(a) for (_, t, _), a in zip(self.params, args))


def _kind_of(v):
    # The type names C++ hosts use in the same error.
    if isinstance(v, list):
        return "list of strings" if all(isinstance(x, str) for x in v) else "ZRValue"
    for t, n in ((bool, "bool"), (int, "int"), (float, "float"), (str, "string")):
        if isinstance(v, t):
            return n
    return "ZRValue"


class _HostedModule:
    """A Python object published as a module. Its calls run one at a time, in arrival order, on
    a thread of its own, so a slow method holds up neither the I/O thread nor other modules."""

    def __init__(self, name, obj, class_name):
        self.name = name
        self.obj = obj
        self.methods = [
            _Method("getMethodList", self._method_list, "ZRModuleCore"),
            _Method("getMethodHelp", self._method_help, "ZRModuleCore"),
            _Method("version", self._version, "ZRModuleCore"),
            _Method("ping", self._ping, "ZRModuleCore"),
        ]
        members = inspect.getmembers(obj, callable)
        marked = [(n, f) for n, f in members
                  if (not n.startswith("_") or hasattr(f, "_zr_doc")) and not inspect.isclass(f)]
        # Registration order: the order of definition in the class, as far as Python keeps it.
        order = {n: i for i, n in enumerate(itertools.chain.from_iterable(
            vars(c) for c in reversed(type(obj).__mro__)))}
        marked.sort(key=lambda nf: order.get(nf[0], len(order)))
        self.methods += [_Method(n, f, class_name) for n, f in marked]
        self.executor = concurrent.futures.ThreadPoolExecutor(
            max_workers=1, thread_name_prefix="zr-" + name)

    @method("Lists the names of the module's methods.",
            returns=("methods", "Method names in registration order."))
    def _method_list(self) -> list[str]:
        names = []
        for m in self.methods:
            if m.name not in names:
                names.append(m.name)
        return names

    @method("Describes a method and its parameters.",
            returns=("help", "Readable documentation of every overload of the method."),
            methodName="Name of the method.")
    def _method_help(self, methodName: str) -> str:
        found = [m.help() for m in self.methods if m.name == methodName]
        if not found:
            raise ZRError(self.name, "getMethodHelp", "no method called \"%s\"" % methodName)
        return "\n".join(found)

    @method("Gives the module's version.", returns=("version", "The version string."))
    def _version(self) -> str:
        return PLATFORM_VERSION

    @method("Checks that the module answers.", returns=("alive", "Always true."))
    def _ping(self) -> bool:
        return True

    def invoke(self, method_name, args):
        candidates = [m for m in self.methods if m.name == method_name]
        if not candidates:
            raise ZRError(self.name, method_name,
                          "no method \"%s\" on this module" % method_name)
        for m in candidates:
            if m.accepts(args):
                try:
                    return m.fn(*args)
                except ZRError:
                    raise
                except Exception as e:  # the caller gets it; the host lives on
                    raise ZRError(self.name, method_name, "%s: %s" % (type(e).__name__, e))
        raise ZRError(self.name, method_name, "no overload of %s takes (%s); it has %s" % (
            method_name, ", ".join(_kind_of(a) for a in args),
            ", ".join(m.signature().split(" -> ")[0] for m in candidates)))


class _EventClient:
    """The client module that ZRMemory calls for the events this client watches."""

    def __init__(self, dispatch):
        self._dispatch = dispatch

    @method("Receives one event from ZRMemory.", eventName="Name of the event.",
            value="Value raised with it.", subscriberIdentifier="Name of the subscriber.")
    def onEvent(self, eventName: str, value, subscriberIdentifier: str) -> None:
        self._dispatch(eventName, value)


class Client:
    """A connection to a ZR network: calls modules by name, watches events, hosts modules.

    Every method may be called from any thread. call() and the proxies block until the reply,
    the peer's error, the call's deadline, or the peer's death (found within about 3 heartbeats).
    Watch callbacks and hosted methods run on threads of their own, never on the I/O thread.
    """

    def __init__(self, directory=None, *, name=None, heartbeat=0.25, listen="tcp://127.0.0.1:*",
                 advertise=None, curve_keys=None, server_key=None):
        self.directory = directory or os.environ.get("ZR_DIRECTORY") or DEFAULT_DIRECTORY
        hostname = socket.gethostname()
        self.name = name or "py-%s-%d-%04x" % (hostname, os.getpid(), random.getrandbits(16))
        self.host_id = "%s-%08x" % (self.name, random.getrandbits(32))
        self.heartbeat = heartbeat
        self._listen, self._advertise = listen, advertise
        self._curve = None
        if curve_keys:
            keys = _read_key_lines(curve_keys)
            server = _read_key_lines(server_key)[0] if server_key else keys[0]
            self._curve = (keys[0].encode(), keys[1].encode(), server.encode())
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
        self._monitor = None    # the router's connections coming and going
        self._connections = 0
        self.endpoint = ""
        self._in = {}           # routing identity -> _InPeer
        self._modules = {}      # name -> _HostedModule (read by the I/O thread)
        self._cancelled = set()
        self._ids = itertools.count(1)
        self._seq = itertools.count(1)
        self._names_lock = threading.Lock()
        self._names = {}        # published module name -> (host name, endpoint)
        self._epoch, self._dir_seq = "", 0
        self._synced = threading.Condition(self._names_lock)
        self._sync_count = 0
        self._sync_in_flight = False
        self._sync_wanted = 0
        self._published = set()
        self._publishing = set()
        self._event_client = None
        self._watches = {}      # event -> [callbacks]
        self._watch_lock = threading.Lock()
        self._callback_failures = {}  # event -> (time of the last report, failures held back)
        self._closed = False
        self._thread = threading.Thread(target=self._run, name="zr-io", daemon=True)
        self._thread.start()
        # The first listing: a directory that does not answer is a clear error now.
        try:
            self._sync_now(DIRECTORY_WAIT)
        except ZRError:
            self.close()
            raise

    # ---- public API -----------------------------------------------------------------------

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def list(self):
        """Every published module, sorted by name: dicts with name, host and endpoint."""
        self._sync_now(DIRECTORY_WAIT)
        with self._names_lock:
            return [{"name": n, "host": h, "endpoint": e}
                    for n, (h, e) in sorted(self._names.items())]

    def proxy(self, name):
        """A proxy on the module `name`; ZRError(name, "getProxy", ...) when none is published."""
        self._resolve(name, "getProxy")
        return Proxy(self, name)

    def describe(self, name):
        """The module's methods: one dict per overload (method, signature, description,
        parameters [(name, type, documentation)], returnType, returnName, returnDocumentation),
        asked over the wire as `zr describe` does."""
        out = []
        for m in self.call(name, "getMethodList"):
            out += _parse_help(self.call(name, "getMethodHelp", m))
        return out

    def call(self, module, method_name, *args, deadline=None):
        """Calls `method_name` of `module` with the arguments; the result, or ZRError.
        `deadline` (seconds) bounds the wait: ZRError "deadline exceeded" after it."""
        body, blocks = w.encode_values(list(args), module, method_name)
        endpoint = self._resolve(module, method_name)
        return self._call_endpoint(endpoint, module, method_name, body, blocks, deadline).result()

    def watch(self, event, callback):
        """Subscribes to `event` (e.g. "SoundLevel/Levels") through ZRMemory, as a client module
        of this client's name: the producing extractor starts. callback(event, value) runs off the
        I/O thread, in the order the events come. Returns a handle whose close() unsubscribes."""
        with self._watch_lock:
            first_ever = self._event_client is None
            if first_ever:
                self._event_client = _EventClient(self._dispatch_event)
        if first_ever:
            self.host(self.name, self._event_client, class_name="PythonClient")
        with self._watch_lock:
            new = event not in self._watches
            self._watches.setdefault(event, []).append(callback)
        if new:
            try:
                self._subscribe(event)
            except ZRError:
                with self._watch_lock:
                    self._watches.pop(event, None)
                raise
        return _Watch(self, event, callback)

    def host(self, name, obj, class_name=None):
        """Publishes `obj` as the module `name`: its public methods (and those marked with
        @zr.method, which documents them; else their docstring does) become remote methods,
        beside the built-ins getMethodList, getMethodHelp, version and ping. ZRError when
        another host holds the name."""
        module = _HostedModule(name, obj, class_name or type(obj).__name__)
        self._submit_wait(self._listen_now)
        self._submit_wait(lambda f: (self._modules.__setitem__(name, module), f.set_result(0)))
        try:
            self.call(DIRECTORY_MODULE, "publish", self.host_id, self.name, self.endpoint, name,
                      deadline=DIRECTORY_WAIT)
        except ZRError:
            self._submit_wait(lambda f: (self._modules.pop(name, None), f.set_result(0)))
            module.executor.shutdown(wait=False)
            raise
        with self._names_lock:
            self._published.add(name)
            self._names[name] = (self.name, self.endpoint)

    def unhost(self, name):
        """Unpublishes the module `name` hosted here."""
        with self._names_lock:
            self._published.discard(name)
        try:
            self.call(DIRECTORY_MODULE, "unpublish", self.host_id, self.name, self.endpoint, name,
                      deadline=DIRECTORY_WAIT)
        finally:
            module = self._submit_wait(lambda f: f.set_result(self._modules.pop(name, None)))
            if module:
                module.executor.shutdown(wait=False)

    def close(self):
        """Unsubscribes every watched event, unpublishes the hosted modules, says bye to every
        peer and stops the I/O thread. Idempotent."""
        if self._closed:
            return
        with self._watch_lock:
            events = list(self._watches)
            self._watches.clear()
        for ev in events:
            try:
                self.call(MEMORY_MODULE, "unsubscribeToEvent", ev, self.name, deadline=2.0)
            except ZRError as e:
                log.info("zr: unsubscribing %s: %s", ev, e)
        with self._names_lock:
            names = list(self._published)
        for n in names:
            try:
                self.unhost(n)
            except ZRError as e:
                log.info("zr: unpublishing %s: %s", n, e)
        self._closed = True
        if self._thread.is_alive():
            self._submit(self._stop)
            self._thread.join()
        self._ctx.term()
        os.close(self._wake_r)
        os.close(self._wake_w)

    # ---- threads other than the I/O thread -------------------------------------------------

    def _submit(self, fn):
        self._commands.put(fn)
        try:
            os.write(self._wake_w, b"x")
        except BlockingIOError:
            pass

    def _submit_wait(self, fn):
        f = concurrent.futures.Future()
        if self._closed and not self._thread.is_alive():
            raise ZRError("zrnet", "call", "the client is closed")
        self._submit(lambda: fn(f))
        return f.result()

    def _call_endpoint(self, endpoint, module, method_name, body, blocks, deadline):
        f = concurrent.futures.Future()
        if not self._thread.is_alive():
            f.set_exception(ZRError(module, method_name, "the client is closed"))
            return f
        self._submit(lambda: self._start_call(endpoint, module, method_name, body, blocks,
                                              deadline, f))
        return f

    def _resolve(self, module, method_name):
        if module == DIRECTORY_MODULE:
            return self.directory
        with self._names_lock:
            hit = self._names.get(module)
        if hit is None:
            try:
                self._sync_now(DIRECTORY_WAIT)
            except ZRError:
                pass
            with self._names_lock:
                hit = self._names.get(module)
        if hit is None:
            raise ZRError(module, method_name, "no module called \"%s\" is published at %s"
                          % (module, self.directory))
        return hit[1]

    def _sync_now(self, timeout):
        """Waits for a directory listing asked for after this call."""
        with self._names_lock:
            target = self._sync_count + 2  # one in flight may predate us
            self._sync_wanted = max(self._sync_wanted, target)
        deadline = _now() + timeout
        self._submit(self._maybe_sync)
        with self._names_lock:
            while self._sync_count < target:
                left = deadline - _now()
                if left <= 0 or not self._thread.is_alive():
                    raise ZRError(DIRECTORY_MODULE, "sync", "no directory answers at %s"
                                  % self.directory)
                self._synced.wait(min(left, self.heartbeat))
                if self._sync_count < target:
                    self._submit(self._maybe_sync)

    def _subscribe(self, event):
        # The memory service's host may not know our name yet: retry while the error is about it.
        until = _now() + DIRECTORY_WAIT
        while True:
            try:
                self.call(MEMORY_MODULE, "subscribeToEvent", event, self.name, "onEvent")
                return
            except ZRError as e:
                if ('"%s"' % self.name) not in e.description or _now() >= until:
                    raise
            with self._names_lock:
                self._synced.wait(self.heartbeat)

    def _dispatch_event(self, event, value):
        with self._watch_lock:
            callbacks = list(self._watches.get(event, ()))
        for cb in callbacks:
            try:
                cb(event, value)
            except Exception:
                # A callback failing on every event would bury everything else: one report a
                # second per event, with how many were held back.
                now = _now()
                last, held = self._callback_failures.get(event, (None, 0))
                if last is not None and now - last < 1.0:
                    self._callback_failures[event] = (last, held + 1)
                    continue
                self._callback_failures[event] = (now, 0)
                log.exception("zr: a watch callback of %s failed (%d failures held back)",
                              event, held)

    def _unwatch(self, event, callback):
        with self._watch_lock:
            cbs = self._watches.get(event)
            if not cbs or callback not in cbs:
                return
            cbs.remove(callback)
            last = not cbs
            if last:
                del self._watches[event]
        if last:
            self.call(MEMORY_MODULE, "unsubscribeToEvent", event, self.name, deadline=2.0)

    # ---- the I/O thread ---------------------------------------------------------------------

    def _run(self):
        self._running = True
        next_tick = _now()
        while self._running:
            now = _now()
            if now >= next_tick:
                self._tick(now)
                next_tick = now + self.heartbeat
            timeout = max(0.0, min(next_tick, self._next_expiry()) - _now())
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
            self._expire(_now())
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
        for m in self._modules.values():
            m.executor.shutdown(wait=False)

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
        until = _now() + self.heartbeat
        self._count_connections()
        while self._connections > 0 and _now() < until:
            self._monitor.poll((until - _now()) * 1000)
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

    def _listen_now(self, f):
        if self._router is None:
            r = self._ctx.socket(zmq.ROUTER)
            r.setsockopt(zmq.LINGER, 0)
            r.bind(self._listen)
            self._router = r
            self.endpoint = self._advertise or r.getsockopt_string(zmq.LAST_ENDPOINT)
            self._poller.register(r, zmq.POLLIN)
            self._monitor = r.get_monitor_socket(zmq.EVENT_ACCEPTED | zmq.EVENT_DISCONNECTED)
            self._poller.register(self._monitor, zmq.POLLIN)
        f.set_result(self.endpoint)

    def _peer_for(self, endpoint):
        peer = self._out.get(endpoint)
        if peer is None:
            s = self._ctx.socket(zmq.DEALER)
            s.setsockopt(zmq.LINGER, 0)
            if self._curve:
                s.curve_publickey, s.curve_secretkey, s.curve_serverkey = self._curve
            s.connect(endpoint)
            peer = _OutPeer(s, endpoint)
            self._out[endpoint] = peer
            self._by_sock[s] = peer
            self._poller.register(s, zmq.POLLIN)
            self._send(s, w.message(w.HELLO, {"host": self.name, "endpoint": self.endpoint,
                                               "heartbeat": int(self.heartbeat * 1000)}))
        return peer

    def _start_call(self, endpoint, module, method_name, body, blocks, deadline, future):
        peer = self._peer_for(endpoint)
        call_id = next(self._ids)
        fields = {"id": call_id, "seq": next(self._seq), "module": module, "method": method_name,
                  "caller": self.name,
                  "deadline": None if deadline is None else max(1, int(deadline * 1000))}
        expires = None if deadline is None else _now() + deadline
        peer.pending[call_id] = _Pending(future, module, method_name, expires)
        self._send(peer.sock, w.message(w.CALL, fields, body, blocks))

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

    def _expire(self, now):
        for peer in list(self._out.values()):
            for call_id, p in list(peer.pending.items()):
                if p.expires is not None and now >= p.expires:
                    del peer.pending[call_id]
                    self._send(peer.sock, w.message(w.CANCEL, {"id": call_id}))
                    p.future.set_exception(ZRError(p.module, p.method, "deadline exceeded"))

    def _tick(self, now):
        ping = w.message(w.PING)
        for peer in list(self._out.values()):
            if peer.heartbeat is None:
                # No hello back: unreachable after 2 s (or 3 of our intervals, if longer).
                if now - peer.opened > max(2.0, 3 * self.heartbeat):
                    self._drop_out(peer, MODULE_DESTROYED)
                    continue
            elif now - peer.last_heard > 3 * max(peer.heartbeat, self.heartbeat):
                self._drop_out(peer, MODULE_DESTROYED)
                continue
            self._send(peer.sock, ping)
        for ident, p in list(self._in.items()):
            if now - p.last_heard > 3 * max(p.heartbeat or 0, self.heartbeat):
                del self._in[ident]
            else:
                self._send(self._router, [ident] + ping)
        self._maybe_sync()

    # The directory: a sync every heartbeat keeps our names' lease and the name cache fresh.
    def _maybe_sync(self):
        if self._sync_in_flight or not self._running:
            return
        self._sync_in_flight = True
        body, _ = w.encode_values([self.host_id, self._epoch, self._dir_seq])
        f = concurrent.futures.Future()
        f.add_done_callback(self._on_sync)
        self._start_call(self.directory, DIRECTORY_MODULE, "sync", body, [],
                         max(2.0, 3 * self.heartbeat), f)

    def _on_sync(self, f):
        self._sync_in_flight = False
        try:
            epoch, seq, snapshot, changes = f.result()
            republish = []
            with self._names_lock:
                if epoch != self._epoch:
                    republish = list(self._published)
                if snapshot:
                    self._names.clear()
                for added, name, host, endpoint in changes:
                    if added:
                        self._names[name] = (host, endpoint)
                    else:
                        self._names.pop(name, None)
                self._epoch, self._dir_seq = epoch, seq
                republish += [n for n in self._published
                              if n not in self._names and n not in republish]
                republish = [n for n in republish if n not in self._publishing]
                self._sync_count += 1
                self._synced.notify_all()
                again = self._sync_count < self._sync_wanted
            for n in republish:
                self._publish_async(n)
            if again:
                self._maybe_sync()
        except ZRError as e:
            log.debug("zr: directory sync: %s", e)
        except (TypeError, ValueError) as e:
            log.warning("zr: the directory answered sync with an unexpected value: %s", e)

    def _publish_async(self, name):
        self._publishing.add(name)
        body, _ = w.encode_values([self.host_id, self.name, self.endpoint, name])
        f = concurrent.futures.Future()

        def done(f):
            self._publishing.discard(name)
            if f.exception():
                log.warning("zr: publishing %s again: %s", name, f.exception())

        f.add_done_callback(done)
        self._start_call(self.directory, DIRECTORY_MODULE, "publish", body, [], 5.0, f)

    def _on_dealer(self, peer, frames):
        if self._out.get(peer.endpoint) is not peer:
            return
        peer.last_heard = _now()  # any message is a sign of life, even one we drop
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
        peer.last_heard = _now()
        if m.type == w.HELLO:
            peer.heartbeat = m.envelope["heartbeat"] / 1000.0
            self._send(self._router, [ident] + w.message(w.HELLO, {
                "host": self.name, "endpoint": self.endpoint,
                "heartbeat": int(self.heartbeat * 1000)}))
        elif m.type == w.CALL:
            self._incoming_call(ident, m)
        elif m.type == w.DATA:
            self._incoming_data(ident, m)
        elif m.type == w.CANCEL:
            self._cancelled.add((ident, m.envelope["id"]))
        elif m.type == w.BYE:
            del self._in[ident]
        elif m.type not in (w.PING,):
            log.warning("zr: dropped an unexpected message of type %d", m.type)

    def _incoming_call(self, ident, m):
        env = m.envelope
        call_id, module_name, method_name = env["id"], env["module"], env["method"]
        module = self._modules.get(module_name)
        if module is None:
            self._send(self._router, [ident] + w.message(w.ERROR, {
                "id": call_id, "module": module_name, "method": method_name,
                "description": MODULE_DESTROYED}))  # as C++ hosts answer
            return
        args = m.body

        def run():
            if (ident, call_id) in self._cancelled:
                self._submit(lambda: self._cancelled.discard((ident, call_id)))
                return
            try:
                result = module.invoke(method_name, args)
                body, blocks = w.encode_values(result, module_name, method_name)
                reply = w.message(w.REPLY, {"id": call_id}, body, blocks)
            except ZRError as e:
                reply = w.message(w.ERROR, {"id": call_id, "module": e.module,
                                            "method": e.method, "description": e.description})
            self._submit(lambda: self._reply(ident, call_id, reply))

        try:
            module.executor.submit(run)
        except RuntimeError:  # the module was unhosted meanwhile
            pass

    def _reply(self, ident, call_id, frames):
        if (ident, call_id) in self._cancelled:
            self._cancelled.discard((ident, call_id))
            return
        if self._router is not None:
            self._send(self._router, [ident] + frames)

    def _incoming_data(self, ident, m):
        env = m.envelope
        if env["module"]:
            calls = [([env["module"]], m.body)]
        else:
            if not m.body or not isinstance(m.body[0], list):
                log.warning("zr: dropped a fan-out without its list of modules")
                return
            calls = [(m.body[0], a) for a in m.body[1:]]
        stream = env["stream"]
        jobs = []
        for names, args in calls:
            for n in names:
                mod = self._modules.get(n) if isinstance(n, str) else None
                if mod is None or not isinstance(args, list):
                    log.warning("zr: a data message for a missing module %r is skipped", n)
                    continue
                jobs.append((mod, args))

        def run_all():
            failure = None
            for mod, args in jobs:
                try:
                    mod.invoke(env["method"], args)
                except ZRError as e:
                    log.warning("zr: %s", e)
                    failure = failure or e
            if not stream:
                return
            # The failure first, then the credit: the sender counts the message as failed.
            frames = []
            if failure is not None:
                frames.append(w.message(w.STREAM_ERROR, {
                    "stream": stream, "seq": env["seq"], "module": failure.module,
                    "method": failure.method, "description": failure.description}))
            frames.append(w.message(w.CREDIT, {"stream": stream, "credits": 1}))

            def answer():
                for f in frames:
                    self._send(self._router, [ident] + f)
            self._submit(answer)

        # One thread keeps the stream's order across modules.
        first = jobs[0][0] if jobs else None
        if first is None:
            run_all()
        else:
            first.executor.submit(run_all)


class _Watch:
    def __init__(self, client, event, callback):
        self._client, self.event, self._callback = client, event, callback

    def close(self):
        """Stops this callback; the last one of its event unsubscribes from ZRMemory."""
        self._client._unwatch(self.event, self._callback)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class Proxy:
    """A module reached by name: proxy.call("m", *args, deadline=None) or proxy.m(*args). The
    name is looked up at every call, so a module that moved to another host is found again."""

    def __init__(self, client, name):
        self._client = client
        self.name = name

    def call(self, method_name, *args, deadline=None):
        return self._client.call(self.name, method_name, *args, deadline=deadline)

    def __getattr__(self, method_name):
        if method_name.startswith("_"):
            raise AttributeError(method_name)
        return lambda *args, deadline=None: self.call(method_name, *args, deadline=deadline)


def _parse_help(text):
    import re

    head = re.compile(r"([^( ]+)\(([^)]*)\) -> (.+)")
    param = re.compile(r"  ([^ ]+) \(([^)]+)\): ?(.*)")
    ret = re.compile(r"  returns ([^:]*): ?(.*)")
    out = []
    for line in text.split("\n"):
        mh = head.fullmatch(line)
        if mh:
            out.append({"method": mh[1], "signature": line, "description": "", "parameters": [],
                        "returnType": mh[3], "returnName": "", "returnDocumentation": ""})
            continue
        if not out or not line:
            continue
        cur = out[-1]
        mp, mr = param.fullmatch(line), ret.fullmatch(line)
        if mr:
            cur["returnName"], cur["returnDocumentation"] = mr[1], mr[2]
        elif mp:
            cur["parameters"].append((mp[1], mp[2], mp[3]))
        elif not cur["parameters"] and not cur["description"]:
            cur["description"] = line.strip()
    return out


def connect(directory=None, **options):
    """A Client on the directory at `directory` (else ZR_DIRECTORY, else tcp://127.0.0.1:7470).
    Options: name, heartbeat (seconds), listen, advertise, curve_keys (a `zr keygen` NAME.key),
    server_key (the hosts' NAME.pub). ZRError when no directory answers within 3 s."""
    return Client(directory, **options)
