"""The Python twins of the C++ probes in probes.cpp, hosted by `python3 -m zr host`: the same
hook records, limits and remote method, written as a user of zr.Extractor would."""

import threading

import zr


class HookProbe(zr.Extractor):
    def __init__(self, client, name):
        super().__init__(client, name)
        self._lock = threading.Lock()
        self._calls = []

    def x_start_detection(self, period, precision):
        self._record(["start", period, precision])

    def x_update_parameters(self, period, precision):
        self._record(["update", period, precision])

    def x_stop_detection(self):
        self._record(["stop"])

    @zr.method("Hands over the hook calls made since the last call.",
               returns=("calls", "[name, period, precision] per call; [name] for the stop hook."))
    def getHookCalls(self) -> list:
        with self._lock:
            calls, self._calls = self._calls, []
        return calls

    def _record(self, call):
        with self._lock:
            self._calls.append(call)


class BoundedProbe(HookProbe):
    def get_default_period(self):
        return 50

    def get_default_precision(self):
        return 0.25

    def get_minimum_period(self):
        return 20

    def get_maximum_period(self):
        return 500


class PlainSound(zr.SoundExtractor):
    pass
