"""The reaper of the modules a client hosts, as every C++ host has one for its own modules.

A module that leaves the directory (its host was killed or left) may still be listed as a
subscriber by a module hosted here: an extractor would keep running for it. Every hosted module
that lists the gone name among its subscribers ("getSubscribersInfo", or "getSubscribers") and
has "unsubscribe" is told "unsubscribe" with it, so that its stop hook runs. When the audio
device leaves, a sound extractor hosted here that still has subscribers says so in one line,
and is subscribed to the device again when a device comes back under the name."""

import concurrent.futures
import logging

from ._errors import ZRError
from ._platform import DEVICE_MODULE

log = logging.getLogger("zr.reaper")


def _lists(module, name):
    if module.has("getSubscribersInfo"):
        return any((e[0] if isinstance(e, list) and e else e) == name
                   for e in module.invoke("getSubscribersInfo", []))
    if module.has("getSubscribers"):
        return name in module.invoke("getSubscribers", [])
    return False


def _has_subscribers(module):
    try:
        return len(module.invoke("getSubscribersInfo", [])) > 0
    except ZRError:
        return False


class Reaper:
    """Contract: names_changed is called on the I/O thread and only posts; the reaping runs on a
    thread of its own, one departure at a time."""

    def __init__(self, client, directory, hosting):
        self._client = client
        self._directory = directory
        self._hosting = hosting
        self._thread = concurrent.futures.ThreadPoolExecutor(1, thread_name_prefix="zr-reaper")
        self._waiting = []      # sound extractors waiting for the device to come back

    def names_changed(self, added, removed):
        modules = list(self._hosting.modules.values())
        try:
            for name in removed:
                self._thread.submit(self._reap, name, modules)
            if DEVICE_MODULE in added:
                self._thread.submit(self._device_back)
        except RuntimeError:  # stopped: the client closes, its modules go with it
            pass

    def stop(self):
        self._thread.shutdown(wait=True, cancel_futures=True)

    def _reap(self, name, modules):
        if self._directory.lookup(name) is not None:
            return  # back already: whatever it subscribed to serves it
        if name == DEVICE_MODULE:
            self._device_gone(modules)
        for m in modules:
            if m.name == name or not m.has("unsubscribe"):
                continue
            try:
                if not _lists(m, name):
                    continue
                log.info("%s: unsubscribing \"%s\", which is gone", m.name, name)
                m.invoke("unsubscribe", [name])
            except ZRError as e:
                # Taken back meanwhile by whoever subscribed it, or the module is going away.
                log.debug("%s: \"%s\", which is gone, is not unsubscribed: %s", m.name, name, e)

    def _device_gone(self, modules):
        for m in modules:
            if not (m.has("processRemote") and m.has("getSubscribersInfo")):
                continue
            # A sound extractor is subscribed to the device exactly while it has subscribers.
            if not _has_subscribers(m):
                continue
            log.warning("%s: its audio device \"%s\" is gone while \"%s\" is subscribed to it; "
                        "no sound reaches \"%s\" until a device comes back under that name",
                        m.name, DEVICE_MODULE, m.name, m.name)
            if m not in self._waiting:
                self._waiting.append(m)

    def _device_back(self):
        waiting, self._waiting = self._waiting, []
        for m in waiting:
            if self._hosting.modules.get(m.name) is not m or not _has_subscribers(m):
                continue
            try:
                self._client.call(DEVICE_MODULE, "subscribe", m.name)
                log.info("%s: subscribed again to \"%s\", which came back", m.name,
                         DEVICE_MODULE)
            except ZRError as e:
                log.warning("%s: cannot subscribe again to \"%s\", which came back: %s",
                            m.name, DEVICE_MODULE, e)
