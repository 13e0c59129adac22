"""Hosting Python objects as modules: their method tables (with the built-ins every module
answers), overload selection as C++ modules do it, and the incoming calls, run off the I/O
thread, answered through it."""

import concurrent.futures
import inspect
import itertools
import logging
import re

from . import _wire as w
from ._errors import ZRError
from ._platform import MODULE_DESTROYED, PLATFORM_VERSION

log = logging.getLogger("zr")

# Threads for the calls of modules run as C++ hosts run theirs (the extractors).
CALL_THREADS = 16


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


def _is_int(v):
    return isinstance(v, int) and not isinstance(v, bool)


def _is_string_list(v):
    return isinstance(v, list) and all(isinstance(x, str) for x in v)


# How well an argument fits a parameter type, as C++ modules score it: 2 exact, 1 converted (an
# int for a float, anything for a ZRValue), 0 not at all.
_SCORES = {
    "bool": lambda v: 2 if isinstance(v, bool) else 0,
    "int": lambda v: 2 if _is_int(v) else 0,
    "float": lambda v: 2 if isinstance(v, float) else (1 if _is_int(v) else 0),
    "string": lambda v: 2 if isinstance(v, str) else 0,
    "list of strings": lambda v: 2 if _is_string_list(v) else 0,
}


def _any_value(_v):
    return 1


class Method:
    """One overload of a remote method: its documentation, signature and function. Built from a
    function's annotations and @method marks, or given explicitly (`params` as
    [(name, type, documentation)])."""

    def __init__(self, name, fn, class_name, description=None, params=None, return_type=None,
                 returns=None):
        self.name = name
        self.fn = fn
        self.class_name = class_name
        if params is None:
            description, params, return_type, returns = self._introspect(fn)
        self.description = description
        self.params = list(params)
        self.return_type = return_type
        self.return_name, self.return_doc = returns if returns else ("", "")
        self._scores = [_SCORES.get(t, _any_value) for _, t, _ in self.params]
        self._floats = [i for i, (_, t, _) in enumerate(self.params) if t == "float"]

    @staticmethod
    def _introspect(fn):
        doc = getattr(fn, "_zr_doc", None)
        if doc is None:
            text = inspect.getdoc(fn) or ""
            doc = (text.split("\n\n")[0].replace("\n", " "), None, {})
        description, ret, pdocs = doc
        sig = inspect.signature(fn)
        params = [(p.name, _type_name(p.annotation), pdocs.get(p.name, ""))
                  for p in sig.parameters.values()
                  if p.kind in (p.POSITIONAL_ONLY, p.POSITIONAL_OR_KEYWORD)]
        return_type = ("void" if sig.return_annotation is None
                       else _type_name(sig.return_annotation))
        return description, params, return_type, ret

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

    def score(self, args):
        """How well the arguments fit, the higher the better; -1 when they do not."""
        if len(args) != len(self._scores):
            return -1
        total = 0
        for fit, a in zip(self._scores, args):
            s = fit(a)
            if not s:
                return -1
            total += s
        return total

    def call(self, args):
        for i in self._floats:
            if not isinstance(args[i], float):
                args = list(args)
                args[i] = float(args[i])
        return self.fn(*args)


def _kind_of(v):
    # The type names C++ hosts use in the same error.
    if isinstance(v, list):
        return "list of strings" if _is_string_list(v) else "ZRValue"
    for t, n in ((bool, "bool"), (int, "int"), (float, "float"), (str, "string")):
        if isinstance(v, t):
            return n
    return "ZRValue"


class HostedModule:
    """A Python object published as a module. Its calls run one at a time, in arrival order, on
    a thread of its own, so a slow method holds up neither the I/O thread nor other modules, and
    the errors they raise reach the caller as they are. An object whose `_zr_like_cpp` is true
    is run as a C++ host runs its modules: its calls on the client's call threads, any number at
    once (its data messages still in order on its own thread), and an error it raises that does
    not name the call's module and method is named after the call, its text as description.

    An object may give its method table itself: `_zr_methods()` returns Method objects, which
    follow the built-ins in that order; `_zr_version()`, when defined, answers "version"."""

    def __init__(self, name, obj, class_name):
        self.name = name
        self.obj = obj
        self.like_cpp = bool(getattr(obj, "_zr_like_cpp", False))
        self.methods = [
            Method("getMethodList", self._method_list, "ZRModuleCore"),
            Method("getMethodHelp", self._method_help, "ZRModuleCore"),
            Method("version", getattr(obj, "_zr_version", self._version), "ZRModuleCore",
                   *_doc_of(self._version)),
            Method("ping", self._ping, "ZRModuleCore"),
        ]
        own = getattr(obj, "_zr_methods", None)
        if own is not None:
            self.methods += own()
        else:
            self.methods += self._introspect(obj, class_name)
        self._by_name = {}
        for m in self.methods:
            self._by_name.setdefault(m.name, []).append(m)
        self.executor = concurrent.futures.ThreadPoolExecutor(
            max_workers=1, thread_name_prefix="zr-" + name)

    def info(self):
        """(kind, method names, declared events), as C++ hosts publish them with the name."""
        names = list(dict.fromkeys(m.name for m in self.methods))
        if self.name in ("ZRMemory", "ZRAudioDevice"):
            kind = "service"
        elif "getSubscribersInfo" in names and "getCurrentPeriod" in names:
            kind = "soundextractor" if "processRemote" in names else "extractor"
        else:
            kind = "module"
        return kind, names, list(getattr(self.obj, "_event_list", []))

    @staticmethod
    def _introspect(obj, class_name):
        members = inspect.getmembers(obj, callable)
        marked = [(n, f) for n, f in members
                  if (not n.startswith("_") or hasattr(f, "_zr_doc")) and not inspect.isclass(f)]
        # Registration order: the order of definition in the class, as far as Python keeps it.
        order = {n: i for i, n in enumerate(itertools.chain.from_iterable(
            vars(c) for c in reversed(type(obj).__mro__)))}
        marked.sort(key=lambda nf: order.get(nf[0], len(order)))
        return [Method(n, f, class_name) for n, f in marked]

    @method("Lists the names of the module's methods.",
            returns=("methods", "Method names in registration order."))
    def _method_list(self) -> list[str]:
        return list(self._by_name)

    @method("Describes a method and its parameters.",
            returns=("help", "Readable documentation of every overload of the method."),
            methodName="Name of the method.")
    def _method_help(self, methodName: str) -> str:
        found = [m.help() for m in self._by_name.get(methodName, ())]
        if not found:
            raise ZRError(self.name, "getMethodHelp", "no method called \"%s\"" % methodName)
        return "\n".join(found)

    @method("Gives the module's version.", returns=("version", "The version string."))
    def _version(self) -> str:
        return PLATFORM_VERSION

    @method("Checks that the module answers.", returns=("alive", "Always true."))
    def _ping(self) -> bool:
        return True

    def has(self, method_name):
        return method_name in self._by_name

    def invoke(self, method_name, args):
        candidates = self._by_name.get(method_name)
        if not candidates:
            raise ZRError(self.name, method_name,
                          "no method \"%s\" on this module" % method_name)
        best, best_score = None, -1
        for m in candidates:
            s = m.score(args)
            if s > best_score:
                best, best_score = m, s
        if best is None:
            raise ZRError(self.name, method_name, "no overload of %s takes (%s); it has %s" % (
                method_name, ", ".join(_kind_of(a) for a in args),
                ", ".join(m.signature().split(" -> ")[0] for m in candidates)))
        try:
            return best.call(args)
        except ZRError as e:
            if not self.like_cpp or (e.module == self.name and e.method == method_name):
                raise
            raise ZRError(self.name, method_name, str(e)) from None
        except Exception as e:  # the caller gets it; the host lives on (the log keeps the cause)
            raise ZRError(self.name, method_name, "%s: %s" % (type(e).__name__, e))


def _doc_of(fn):
    """(description, params, return type, returns) of a method marked with @method."""
    return Method._introspect(fn)


class Hosting:
    """The modules this client hosts, and the calls they receive. The module table is written
    on the I/O thread only; other threads read single entries or a snapshot of it."""

    def __init__(self, conn):
        self._conn = conn
        self.modules = {}       # name -> HostedModule
        self._cancelled = set()
        self._pool = None       # call threads of the concurrent modules, made when needed
        conn.on_call = self._incoming_call
        conn.on_cancel = lambda ident, call_id: self._cancelled.add((ident, call_id))

    def add(self, module):
        def put(f):
            if module.like_cpp and self._pool is None:
                self._pool = concurrent.futures.ThreadPoolExecutor(
                    max_workers=CALL_THREADS, thread_name_prefix="zr-calls")
            self.modules[module.name] = module
            f.set_result(0)

        self._conn.submit_wait(put)

    def remove(self, name):
        """Takes the module off the table; the module, or None."""
        module = self._conn.submit_wait(lambda f: f.set_result(self.modules.pop(name, None)))
        if module:
            module.executor.shutdown(wait=False)
        return module

    def names(self):
        return self._conn.submit_wait(lambda f: f.set_result(list(self.modules)))

    def shutdown(self):
        """After the I/O thread stopped: no thread of a module takes more work."""
        for m in self.modules.values():
            m.executor.shutdown(wait=False)
        if self._pool is not None:
            self._pool.shutdown(wait=False)

    def _incoming_call(self, ident, m):
        env = m.envelope
        call_id, module_name, method_name = env["id"], env["module"], env["method"]
        module = self.modules.get(module_name)
        if module is None:
            self._conn.send_router(ident, w.message(w.ERROR, {
                "id": call_id, "module": module_name, "method": method_name,
                "description": MODULE_DESTROYED}))  # as C++ hosts answer
            return
        args = m.body

        def run():
            if (ident, call_id) in self._cancelled:
                self._conn.submit(lambda: self._cancelled.discard((ident, call_id)))
                return
            try:
                result = module.invoke(method_name, args)
                body, blocks = w.encode_values(result, module_name, method_name)
                reply = w.message(w.REPLY, {"id": call_id}, body, blocks)
            except ZRError as e:
                reply = w.message(w.ERROR, {"id": call_id, "module": e.module,
                                            "method": e.method, "description": e.description})
            self._conn.submit(lambda: self._reply(ident, call_id, reply))

        try:
            (self._pool if module.like_cpp else module.executor).submit(run)
        except RuntimeError:  # the module was unhosted meanwhile
            pass

    def _reply(self, ident, call_id, frames):
        if (ident, call_id) in self._cancelled:
            self._cancelled.discard((ident, call_id))
            return
        self._conn.send_router(ident, frames)


def parse_help(text):
    """The overloads of a getMethodHelp text, as dicts (the fields of `zr describe -f jsonl`)."""
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
