"""The public face of the client: Client, Proxy and connect. It ties the connections (one I/O
thread owning every socket), the directory cache, the hosted modules and the streams together;
calls come from any thread."""

import logging
import os
import random
import socket
import threading

from . import _wire as w
from ._connections import Connections, now
from ._directory import Directory
from ._errors import ZRError
from ._hosting import HostedModule, Hosting, method, parse_help
from ._platform import (DEFAULT_DIRECTORY, DEFAULT_LISTEN, DIRECTORY_WAIT, HEARTBEAT,
                        MEMORY_MODULE)
from ._reaper import Reaper
from ._streams import Streams, raise_event

log = logging.getLogger("zr")


def _read_key_lines(path):
    with open(path) as f:
        return [l.strip() for l in f if l.strip() and not l.startswith("#")]


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

    def __init__(self, directory=None, *, name=None, heartbeat=HEARTBEAT, listen=DEFAULT_LISTEN,
                 advertise=None, curve_keys=None, server_key=None):
        address = directory or os.environ.get("ZR_DIRECTORY") or DEFAULT_DIRECTORY
        hostname = socket.gethostname()
        self.name = name or "py-%s-%d-%04x" % (hostname, os.getpid(), random.getrandbits(16))
        self.host_id = "%s-%08x" % (self.name, random.getrandbits(32))
        self.heartbeat = heartbeat
        curve = None
        if curve_keys:
            keys = _read_key_lines(curve_keys)
            server = _read_key_lines(server_key)[0] if server_key else keys[0]
            curve = (keys[0].encode(), keys[1].encode(), server.encode())
        self._conn = Connections(self.name, heartbeat, listen, advertise, curve)
        self._directory = Directory(self._conn, address, self.host_id)
        self._conn.on_tick = self._directory.tick
        self._hosting = Hosting(self._conn)
        self._streams = Streams(self._conn, self._hosting)
        self._reaper = Reaper(self, self._directory, self._hosting)
        self._directory.on_changed = self._reaper.names_changed
        self._event_client = None
        self._watches = {}      # event -> [callbacks]
        self._watch_lock = threading.Lock()
        self._callback_failures = {}  # event -> (time of the last report, failures held back)
        self._closed = False
        self._conn.start()
        # The first listing: a directory that does not answer is a clear error now.
        try:
            self._directory.sync_now(DIRECTORY_WAIT)
        except ZRError:
            self.close()
            raise

    @property
    def directory(self):
        """The directory's address."""
        return self._directory.address

    @property
    def endpoint(self):
        """Where this client takes calls ("" until it hosts a module)."""
        return self._conn.endpoint

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def list(self):
        """Every published module, sorted by name: dicts with name, host and endpoint."""
        self._directory.sync_now(DIRECTORY_WAIT)
        return [{"name": n, "host": h, "endpoint": e}
                for n, (h, e) in sorted(self._directory.listing().items())]

    def proxy(self, name):
        """A proxy on the module `name`; ZRError(name, "getProxy", ...) when none is published."""
        self._directory.resolve(name, "getProxy")
        return Proxy(self, name)

    def wait_for(self, name, timeout=None):
        """Waits until a module `name` is published (without limit when `timeout` is None);
        False when the timeout passed first."""
        until = None if timeout is None else now() + timeout
        while self._directory.lookup(name) is None:
            if until is not None and now() >= until:
                return False
            self._directory.wait_syncs(1, self.heartbeat * 4)
            if not self._conn.alive:
                raise ZRError(name, "waitForService", "the client is closed")
        return True

    def describe(self, name):
        """The module's methods: one dict per overload (method, signature, description,
        parameters [(name, type, documentation)], returnType, returnName, returnDocumentation),
        asked over the wire as `zr describe` does."""
        out = []
        for m in self.call(name, "getMethodList"):
            out += parse_help(self.call(name, "getMethodHelp", m))
        return out

    def call(self, module, method_name, *args, deadline=None):
        """Calls `method_name` of `module` with the arguments; the result, or ZRError.
        `deadline` (seconds) bounds the wait: ZRError "deadline exceeded" after it."""
        body, blocks = w.encode_values(list(args), module, method_name)
        endpoint = self._directory.resolve(module, method_name)
        return self._conn.call_endpoint(endpoint, module, method_name, body, blocks,
                                        deadline).result()

    def raise_event(self, event, value):
        """Raises `event` with `value` in "ZRMemory": the memory stores it under the event's
        name and calls every subscriber of the event."""
        raise_event(self, event, value)

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
        module = HostedModule(name, obj, class_name or type(obj).__name__)
        self._conn.listen()
        self._hosting.add(module)
        try:
            self._directory.publish(name, self.name, self.endpoint, module.info())
        except ZRError:
            self._hosting.remove(name)
            raise

    def unhost(self, name):
        """Unpublishes the module `name` hosted here; an object that defines _zr_unhosting() is
        told first (a sound extractor leaves the audio device then)."""
        module = self._hosting.modules.get(name)
        leaving = getattr(module.obj, "_zr_unhosting", None) if module else None
        if leaving:
            leaving()
        try:
            self._directory.unpublish(name, self.name, self.endpoint)
        finally:
            self._hosting.remove(name)

    def close(self):
        """Unsubscribes every watched event, unpublishes the hosted modules, says bye to every
        peer and stops the I/O thread. Idempotent."""
        if self._closed:
            return
        self._reaper.stop()
        with self._watch_lock:
            events = list(self._watches)
            self._watches.clear()
        for ev in events:
            try:
                self.call(MEMORY_MODULE, "unsubscribeToEvent", ev, self.name, deadline=2.0)
            except ZRError as e:
                log.info("zr: unsubscribing %s: %s", ev, e)
        for n in self._directory.published():
            try:
                self.unhost(n)
            except ZRError as e:
                log.info("zr: unpublishing %s: %s", n, e)
        self._closed = True
        self._conn.stop()
        self._hosting.shutdown()

    def _subscribe(self, event):
        # The memory service's host may not know our name yet: retry while the error is about it.
        until = now() + DIRECTORY_WAIT
        while True:
            try:
                self.call(MEMORY_MODULE, "subscribeToEvent", event, self.name, "onEvent")
                return
            except ZRError as e:
                if ('"%s"' % self.name) not in e.description or now() >= until:
                    raise
            self._directory.wait_syncs(1, self.heartbeat)

    def _dispatch_event(self, event, value):
        with self._watch_lock:
            callbacks = list(self._watches.get(event, ()))
        for cb in callbacks:
            try:
                cb(event, value)
            except Exception:
                # A callback failing on every event would bury everything else: one report a
                # second per event, with how many were held back.
                t = now()
                last, held = self._callback_failures.get(event, (None, 0))
                if last is not None and t - last < 1.0:
                    self._callback_failures[event] = (last, held + 1)
                    continue
                self._callback_failures[event] = (t, 0)
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


def connect(directory=None, **options):
    """A Client on the directory at `directory` (else ZR_DIRECTORY, else tcp://127.0.0.1:7470).
    Options: name, heartbeat (seconds), listen, advertise, curve_keys (a `zr keygen` NAME.key),
    server_key (the hosts' NAME.pub). ZRError when no directory answers within 3 s."""
    return Client(directory, **options)
