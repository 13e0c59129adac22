"""The directory as a client sees it: a cache of every published name, kept fresh by a sync each
heartbeat (which also renews the lease of the names this client publishes), and the names this
client publishes, published again when the directory lost them."""

import concurrent.futures
import logging
import threading

from . import _wire as w
from ._connections import now
from ._errors import ZRError

log = logging.getLogger("zr")

DEFAULT_DIRECTORY = "tcp://127.0.0.1:7470"
DIRECTORY_MODULE = "ZRDirectory"
# How long a name just published may take to reach the memory service's host.
DIRECTORY_WAIT = 3.0


class Directory:
    """Contract: every public method may be called from any thread but the I/O thread, except
    tick, which the I/O thread calls. on_changed(added, removed), when set, is called on the
    I/O thread with the names of other hosts that came into or left the listing; it must not
    block."""

    def __init__(self, conn, address, host_id):
        self._conn = conn
        self.address = address
        self.host_id = host_id
        self.on_changed = None
        self.lock = threading.Lock()
        self._names = {}        # published module name -> (host name, endpoint)
        self._epoch, self._seq = "", 0
        self.synced = threading.Condition(self.lock)
        self.sync_count = 0
        self._in_flight = False
        self._wanted = 0
        self._published = set()
        self._info = {}  # what each published module is, published with it again
        self._publishing = set()

    def listing(self):
        """{name: (host, endpoint)} as of the last sync."""
        with self.lock:
            return dict(self._names)

    def lookup(self, name):
        with self.lock:
            return self._names.get(name)

    def resolve(self, module, method_name):
        """The endpoint of `module`, syncing once when it is not known;
        ZRError(module, method_name, ...) when none publishes it."""
        if module == DIRECTORY_MODULE:
            return self.address
        hit = self.lookup(module)
        if hit is None:
            try:
                self.sync_now(DIRECTORY_WAIT)
            except ZRError:
                pass
            hit = self.lookup(module)
        if hit is None:
            raise ZRError(module, method_name, "no module called \"%s\" is published at %s"
                          % (module, self.address))
        return hit[1]

    def sync_now(self, timeout):
        """Waits for a directory listing asked for after this call."""
        with self.lock:
            target = self.sync_count + 2  # one in flight may predate us
            self._wanted = max(self._wanted, target)
        deadline = now() + timeout
        self._conn.submit(self.tick)
        with self.lock:
            while self.sync_count < target:
                left = deadline - now()
                if left <= 0 or not self._conn.alive:
                    raise ZRError(DIRECTORY_MODULE, "sync", "no directory answers at %s"
                                  % self.address)
                self.synced.wait(min(left, self._conn.heartbeat))
                if self.sync_count < target:
                    self._conn.submit(self.tick)

    def wait_syncs(self, n, timeout):
        """Waits for `n` more syncs (a span of time in heartbeats); False after `timeout`."""
        with self.lock:
            target = self.sync_count + n
            return self.synced.wait_for(lambda: self.sync_count >= target, timeout)

    def publish(self, name, host_name, endpoint, info=None):
        """`info`: (kind, method names, declared events) of the module, which listings show
        without asking it."""
        self._call("publish", name, host_name, endpoint, info)
        with self.lock:
            self._info[name] = info
            self._published.add(name)
            self._names[name] = (host_name, endpoint)

    def unpublish(self, name, host_name, endpoint):
        with self.lock:
            self._published.discard(name)
        self._call("unpublish", name, host_name, endpoint)

    def published(self):
        with self.lock:
            return list(self._published)

    def _call(self, method_name, name, host_name, endpoint, info=None):
        args = [self.host_id, host_name, endpoint, name]
        if info is not None:
            kind, methods, events = info
            args += [kind, list(methods), list(events)]
        body, _ = w.encode_values(args)
        self._conn.call_endpoint(self.address, DIRECTORY_MODULE, method_name, body, [],
                                 DIRECTORY_WAIT).result()

    # ---- the I/O thread -------------------------------------------------------------------

    def tick(self, _now=None):
        """Starts a sync unless one is in flight."""
        if self._in_flight or not self._conn.running:
            return
        self._in_flight = True
        body, _ = w.encode_values([self.host_id, self._epoch, self._seq])
        f = concurrent.futures.Future()
        f.add_done_callback(self._on_sync)
        self._conn.start_call(self.address, DIRECTORY_MODULE, "sync", body, [],
                              max(2.0, 3 * self._conn.heartbeat), f)

    def _on_sync(self, f):
        self._in_flight = False
        try:
            epoch, seq, snapshot, changes = f.result()
            republish = []
            with self.lock:
                before = dict(self._names)
                if epoch != self._epoch:
                    republish = list(self._published)
                if snapshot:
                    self._names.clear()
                # Entries say what the module is after where it lives: this client needs where,
                # and the key it is reached with (its publisher's, under CURVE).
                for c in changes:
                    added, name, host, endpoint = c[:4]
                    if added:
                        self._names[name] = (host, endpoint)
                        if len(c) > 7 and c[7]:
                            self._conn.server_keys[endpoint] = c[7].encode()
                    else:
                        self._names.pop(name, None)
                self._epoch, self._seq = epoch, seq
                republish += [n for n in self._published
                              if n not in self._names and n not in republish]
                republish = [n for n in republish if n not in self._publishing]
                # A name listed elsewhere than before is a new module: it counts as added.
                added = sorted(n for n, at in self._names.items()
                               if before.get(n) != at and n not in self._published)
                removed = sorted(set(before) - set(self._names) - self._published)
                self.sync_count += 1
                self.synced.notify_all()
                again = self.sync_count < self._wanted
            for n in republish:
                self._publish_async(n)
            if (added or removed) and self.on_changed:
                self.on_changed(added, removed)
            if again:
                self.tick()
        except ZRError as e:
            log.debug("zr: directory sync: %s", e)
        except (TypeError, ValueError) as e:
            log.warning("zr: the directory answered sync with an unexpected value: %s", e)

    def _publish_async(self, name):
        self._publishing.add(name)
        args = [self.host_id, self._conn.name, self._conn.endpoint, name]
        with self.lock:
            info = self._info.get(name)
        if info is not None:
            args += [info[0], list(info[1]), list(info[2])]
        body, _ = w.encode_values(args)
        f = concurrent.futures.Future()

        def done(f):
            self._publishing.discard(name)
            if f.exception():
                log.warning("zr: publishing %s again: %s", name, f.exception())

        f.add_done_callback(done)
        self._conn.start_call(self.address, DIRECTORY_MODULE, "publish", body, [], 5.0, f)
