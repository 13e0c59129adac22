"""zr.Extractor: a module that works only while client modules are subscribed to it, with the
remote method table, subscriber registry, reconciliation, hooks and texts of the C++
ZR::ZRExtractor, for modules hosted by a Python client."""

import abc
import logging
import struct
import sys
import threading

from ._errors import ZRError
from ._hosting import Method
from ._platform import MEMORY_MODULE
from ._streams import raise_event

log = logging.getLogger("zr.core.extractor")

_CLASS = "ZRExtractor"
_SOURCE = "../libzrextractor/src/zrextractor"
_SUBSCRIBE = (
    "Subscribes to the extractor. This causes the extractor to start writing information to "
    "memory using the keys described by getOutputNames(). These can be accessed in memory using "
    "ZRMemory.getData(\"keyName\"). In many cases you can avoid calling subscribe on the "
    "extractor by just calling ZRMemory.subscribeToEvent() supplying a callback method. This "
    "will automatically subscribe to the extractor for you.")
_SUBSCRIBER = ("name", "string", "Name of the module which subscribes.")
_SUBSCRIBED = ("name", "string", "Name of the module which has subscribed.")
_PERIOD = ("period", "Refresh period (in milliseconds).")
_PRECISION = ("precision", "Precision of the extractor.")
_EVENTS = ("Get the list of events updated in ZRMemory.", [], "list of strings",
           ("outputNames", "Array of events updated by this extractor in ZRMemory"))


def _f32(x):
    """`x` as the 32-bit float a C++ extractor would hold."""
    return struct.unpack("f", struct.pack("f", x))[0]


def _error(module, method, description):
    """An error of the extractor base, which names the base's source and the line it is raised
    at, as the C++ ones do."""
    return ZRError(module, method, description, _SOURCE, sys._getframe(1).f_lineno)


def _byte_order(name):
    # The registry lists subscribers in byte-wise order of their names, as std::map does.
    return name.encode("utf-8", "surrogateescape")


class Extractor(abc.ABC):
    """The base of an extractor module, hosted with `client.host(name, extractor)` or by
    `python3 -m zr host FILE.py`.

    Subscribers are kept by module name, each with a period (ms, clamped into
    get_minimum_period() .. get_maximum_period()) and a precision. The extractor runs with the
    smallest period and the largest precision asked for, and tells the derived class through its
    hooks: x_start_detection(period, precision) when the first subscriber arrives,
    x_update_parameters(period, precision) after every later change, x_stop_detection() when the
    last one leaves. Outputs are declared with declare_event and declare_memory_key, before the
    extractor is hosted.

    Threads: remote calls run on the client's call threads, several at once. Subscribing and
    unsubscribing are serialised (the start and stop hooks alternate strictly), and no hook ever
    runs while another hook of the same extractor runs (a hook that calls updatePeriod or
    updatePrecision of its own extractor runs the update hook inside itself, on its thread).
    Hooks may call the getters; a hook that calls subscribe or unsubscribe of its own extractor
    deadlocks, as in C++. The registry's lock is never held while a hook runs."""

    # Calls arrive on several threads at once, as in a C++ host; the locks below keep order.
    _zr_like_cpp = True

    def __init__(self, client, name):
        self.client = client
        self.name = name
        self._registry_lock = threading.Lock()
        self._subscription_lock = threading.Lock()
        self._hook_lock = threading.RLock()
        self._subscribers = {}  # name -> [period, precision]
        self._current_period = -1
        self._current_precision = -1.0
        self._event_list = []
        self._memory_key_list = []
        # No extractor without the memory service: it waits for as long as that takes.
        if not client.wait_for(MEMORY_MODULE, timeout=client.heartbeat * 12):
            log.info("%s is waiting for %s", name, MEMORY_MODULE)
            client.wait_for(MEMORY_MODULE)

    # ---- limits and defaults (override to change them) --------------------------------------

    def get_default_period(self):
        """The period (ms) of a one-argument subscribe while nobody is subscribed."""
        return 30

    def get_default_precision(self):
        """The precision of a one-argument subscribe while nobody is subscribed."""
        return 0.0

    def get_minimum_period(self):
        """The smallest period (ms) accepted; smaller requests are raised to it."""
        return 1

    def get_maximum_period(self):
        """The largest period (ms) accepted; negative: no limit."""
        return -1

    # ---- hooks ----------------------------------------------------------------------------

    @abc.abstractmethod
    def x_start_detection(self, period, precision):
        """The first subscriber arrived: start working with this period and precision."""

    def x_update_parameters(self, period, precision):
        """The subscribers changed while working: the reconciled period and precision."""

    @abc.abstractmethod
    def x_stop_detection(self):
        """The last subscriber left: stop working."""

    # ---- remote methods -------------------------------------------------------------------

    def subscribe(self, name, period=None, precision=None):
        """Subscribes `name`; without period and precision, with the current ones (the
        defaults while nobody is subscribed)."""
        if period is None and precision is None:
            if len(self._subscribers) != 0:
                period, precision = self.getCurrentPeriod(), self.getCurrentPrecision()
            else:
                period, precision = self.get_default_period(), self.get_default_precision()
            return self.subscribe(name, period, precision)
        precision = _f32(precision)
        with self._subscription_lock:
            period = self._clamp(period)
            if not self._subscribers:
                with self._registry_lock:
                    self._current_period, self._current_precision = period, precision
                    self._subscribers[name] = [period, precision]
                self._hook(self.x_start_detection, period, precision)
                return
            with self._registry_lock:
                if name in self._subscribers:
                    log.warning("%s the module is already subscribed: will just update the "
                                "parameters.", self.name)
                self._subscribers[name] = [period, precision]
            self._reconcile()
            log.debug("%s received subscribe from %s", self.name, name)

    def unsubscribe(self, name):
        with self._subscription_lock:
            if name not in self._subscribers:
                log.warning("%s received unsubscribe from non-subscribed module %s",
                            self.name, name)
                raise _error(_CLASS, "received unsubscribe from non-subscribed module: ", name)
            with self._registry_lock:
                del self._subscribers[name]
            if self._subscribers:
                self._reconcile()
            else:
                with self._registry_lock:
                    self._current_period, self._current_precision = -1, -1.0
                self._hook(self.x_stop_detection)
            log.debug("%s received unsubscribe from %s", self.name, name)

    def updatePeriod(self, name, period):
        with self._registry_lock:
            entry = self._subscribers.get(name)
            if entry is None:
                raise _error(_CLASS, "updateParam: unknown module name: ", name)
            entry[0] = self._clamp(period)
        self._reconcile()

    def updatePrecision(self, name, precision):
        with self._registry_lock:
            entry = self._subscribers.get(name)
            if entry is None:
                raise _error(_CLASS, "updateParam: unknown module name: ", name)
            entry[1] = _f32(precision)
        self._reconcile()

    def getCurrentPeriod(self):
        with self._registry_lock:
            return self._current_period

    def getCurrentPrecision(self):
        with self._registry_lock:
            return self._current_precision

    def getMyPeriod(self, name):
        with self._registry_lock:
            entry = self._subscribers.get(name)
            if entry is None:
                raise _error(_CLASS, "getMyPeriod: unknown module name: ", name)
            return entry[0]

    def getMyPrecision(self, name):
        with self._registry_lock:
            entry = self._subscribers.get(name)
            if entry is None:
                raise _error(_CLASS, "getMyPrecision: unknown module name: ", name)
            return entry[1]

    def getSubscribersInfo(self):
        """[[name, period, precision]] of every subscriber, in byte-wise order of the names."""
        with self._registry_lock:
            return [[n, p, q] for n, (p, q) in self._in_order()]

    def getOutputNames(self):
        return self._event_list + self._memory_key_list

    def getEventList(self):
        return list(self._event_list)

    def getMemoryKeyList(self):
        return list(self._memory_key_list)

    # ---- outputs --------------------------------------------------------------------------

    def declare_event(self, name):
        """Declares an event this extractor raises (in "ZRMemory", under this module's name)."""
        self._event_list.append(name)
        self.client.call(MEMORY_MODULE, "declareEvent", name, self.name)

    def declare_memory_key(self, name):
        """Declares a memory key this extractor writes; it holds an empty array until then."""
        self._memory_key_list.append(name)
        self.client.call(MEMORY_MODULE, "insertData", name, [])

    def raise_event(self, name, value):
        """Raises a declared event with `value` (stored under the event's name in "ZRMemory" and
        sent to its subscribers)."""
        raise_event(self.client, name, value)

    def insert_data(self, key, value):
        """Writes `value` under a memory key."""
        self.client.call(MEMORY_MODULE, "insertData", key, value)

    # ---- the machinery --------------------------------------------------------------------

    def _in_order(self):
        return sorted(self._subscribers.items(), key=lambda item: _byte_order(item[0]))

    def _clamp(self, period):
        minimum = self.get_minimum_period()
        if period < minimum:
            log.warning("%s requested period is too small; subscribe with period = %d ms.",
                        self.name, minimum)
            period = minimum
        maximum = self.get_maximum_period()
        if maximum >= 0 and period > maximum:
            log.warning("%s requested period is too big; subscribe with period = %d ms.",
                        self.name, maximum)
            period = maximum
        return period

    def _reconcile(self):
        """The smallest period and the largest precision, then the update hook, every time."""
        with self._registry_lock:
            if not self._subscribers:
                raise _error(self.name, "xUpdateParameters", "no module subscribed")
            entries = [e for _, e in self._in_order()]
            period, precision = entries[0]
            for p, q in entries:
                if p < period:
                    period = p
                if q > precision:
                    precision = q
            self._current_period, self._current_precision = period, precision
        self._hook(self.x_update_parameters, period, precision)

    def _hook(self, hook, *args):
        with self._hook_lock:
            hook(*args)

    def _zr_methods(self):
        return self._zr_table() + self._zr_marked()

    def _zr_marked(self):
        """The derived classes' own remote methods, those marked with @zr.method, in the order
        they are defined, after the base's."""
        out, seen = [], set()
        for cls in reversed(type(self).__mro__):
            if cls.__module__.split(".")[0] == "zr" or cls is object:
                continue
            for n, f in vars(cls).items():
                if n not in seen and callable(f) and hasattr(f, "_zr_doc"):
                    seen.add(n)
                    out.append(Method(n, getattr(self, n), cls.__name__))
        return out

    def _zr_table(self):
        """The remote method table, as the C++ base class publishes it, name for name."""
        c = _CLASS
        return [
            Method("subscribe", lambda n, p, q: self.subscribe(n, p, q), c, _SUBSCRIBE,
                   [_SUBSCRIBER, ("period", "int", "Refresh period (in milliseconds) if relevant."),
                    ("precision", "float", "Precision of the extractor if relevant.")], "void"),
            Method("subscribe", lambda n: self.subscribe(n), c, _SUBSCRIBE, [_SUBSCRIBER], "void"),
            Method("unsubscribe", self.unsubscribe, c, "Unsubscribes from the extractor.",
                   [("name", "string", "Name of the module which had subscribed.")], "void"),
            Method("updatePeriod", self.updatePeriod, c, "Updates the period if relevant.",
                   [_SUBSCRIBED, ("period", "int", _PERIOD[1])], "void"),
            Method("updatePrecision", self.updatePrecision, c,
                   "Updates the precision if relevant.",
                   [_SUBSCRIBED, ("precision", "float", _PRECISION[1])], "void"),
            Method("getCurrentPeriod", self.getCurrentPeriod, c, "Gets the current period.", [],
                   "int", _PERIOD),
            Method("getCurrentPrecision", self.getCurrentPrecision, c,
                   "Gets the current precision.", [], "float", _PRECISION),
            Method("getMyPeriod", self.getMyPeriod, c,
                   "Gets the period for a specific subscription.", [_SUBSCRIBED], "int", _PERIOD),
            Method("getMyPrecision", self.getMyPrecision, c,
                   "Gets the precision for a specific subscription.",
                   [("name", "string", "name of the module which has subscribed")], "float",
                   ("precision", "precision of the extractor")),
            # Not overridable in C++: bound to this class's own.
            Method("getSubscribersInfo", lambda: Extractor.getSubscribersInfo(self), c,
                   "Gets the parameters given by the module.", [], "ZRValue",
                   ("subscribersInfo", "Array of names and parameters of all subscribers.")),
            Method("getOutputNames", self.getOutputNames, c,
                   "Get the list of values updated in ZRMemory.", [], "list of strings",
                   ("outputNames", "Array of values updated by this extractor in ZRMemory")),
            Method("getEventList", lambda: Extractor.getEventList(self), c, *_EVENTS),
            Method("getMemoryKeyList", lambda: Extractor.getMemoryKeyList(self), c, *_EVENTS),
        ]
