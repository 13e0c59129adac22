"""Streams: one-way data messages in order, paced by credits. Receiving (sound buffers for the
hosted modules, fanned out to each module they name) and granting credits live here, and so
does raising an event into the memory service, which is a plain call for now."""

import logging
import time

from . import _wire as w
from ._connections import now
from ._errors import ZRError

log = logging.getLogger("zr")

MEMORY_MODULE = "ZRMemory"


class Streams:
    def __init__(self, conn, hosting):
        self._conn = conn
        self._hosting = hosting
        self._failures = {}  # (module, method) -> (time of the last report, failures held back)
        conn.on_data = self._incoming_data

    def _failed(self, module, method_name, error):
        # A module failing on every buffer would bury everything else: its first failure is
        # reported with its cause, then one report a second, with how many were held back.
        key = (module.name, method_name)
        t = now()
        last, held = self._failures.get(key, (None, 0))
        if last is not None and t - last < 1.0:
            self._failures[key] = (last, held + 1)
            return
        self._failures[key] = (t, 0)
        log.warning("zr: %s (%d failures held back)", error, held, exc_info=last is None)

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
        method_name = env["method"]
        modules = self._hosting.modules
        jobs = []
        for names, args in calls:
            for n in names:
                mod = modules.get(n) if isinstance(n, str) else None
                if mod is None or not isinstance(args, list):
                    log.warning("zr: a data message for a missing module %r is skipped", n)
                    continue
                jobs.append((mod, args))
        captured = env.get("captured")

        def credit(delay=0):
            # `delay`: how late after its sound's capture the message started here, if known.
            fields = {"stream": stream, "credits": 1}
            if delay > 0:
                fields["delay"] = delay
            return w.message(w.CREDIT, fields)

        def run_all():
            delay = time.time_ns() - captured if captured else 0
            failure = None
            for mod, args in jobs:
                try:
                    mod.invoke(method_name, args)
                except ZRError as e:
                    self._failed(mod, method_name, e)
                    failure = failure or e
            if not stream:
                return
            # The failure first, then the credit: the sender counts the message as failed.
            frames = []
            if failure is not None:
                frames.append(w.message(w.STREAM_ERROR, {
                    "stream": stream, "seq": env["seq"], "module": failure.module,
                    "method": failure.method, "description": failure.description}))
            frames.append(credit(delay))

            def answer():
                for f in frames:
                    self._conn.send_router(ident, f)
            self._conn.submit(answer)

        # One thread keeps the stream's order across modules.
        if not jobs:
            run_all()
            return
        try:
            jobs[0][0].executor.submit(run_all)
        except RuntimeError:  # the module was unhosted meanwhile: the sender still gets credit
            if stream:
                self._conn.send_router(ident, credit())


def raise_event(client, event, value):
    """Raises `event` with `value` in the memory service: it stores the value under the event's
    name and notifies the subscribers. ZRError when the memory service refuses it."""
    client.call(MEMORY_MODULE, "raiseEvent", event, value)
