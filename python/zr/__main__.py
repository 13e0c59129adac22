"""python3 -m zr host FILE.py: hosts the extractor classes a Python file defines, as modules of a
ZR network, until SIGINT or SIGTERM."""

import argparse
import importlib.machinery
import inspect
import logging
import os
import pathlib
import signal
import sys
import threading
import types

from ._client import Client
from ._errors import ZRError
from ._extractor import Extractor
from ._platform import (DEFAULT_DIRECTORY, DEFAULT_LISTEN, DIRECTORY_WAIT, HEARTBEAT,
                        MEMORY_MODULE)
from ._soundextractor import SoundExtractor

USAGE, FAILURE, NO_DIRECTORY = 2, 1, 3
LEVELS = {"silent": logging.CRITICAL + 10, "fatal": logging.CRITICAL, "error": logging.ERROR,
          "warning": logging.WARNING, "info": logging.INFO, "verbose": logging.DEBUG,
          "debug": logging.DEBUG}


class _Exit(Exception):
    def __init__(self, code, text):
        super().__init__(text)
        self.code = code


class _Signal(BaseException):
    """SIGINT or SIGTERM, raised in the main thread wherever it waits."""

    def __init__(self, signum):
        super().__init__(signum)
        self.signum = signum


def _on_signal(signum, _frame):
    raise _Signal(signum)


def say(line):
    print("zr: " + line, file=sys.stderr, flush=True)


def _parser():
    p = argparse.ArgumentParser(prog="python3 -m zr")
    sub = p.add_subparsers(dest="command", required=True)
    h = sub.add_parser("host", help="Host the extractors a Python file defines until SIGINT or "
                       "SIGTERM.", description="Hosts every zr.Extractor class FILE defines, "
                       "each under its class name unless --name says otherwise.")
    h.add_argument("file", metavar="FILE.py", help="The Python file that defines the extractors.")
    h.add_argument("--name", action="append", default=[], metavar="[CLASS=]NAME",
                   help="The module name of CLASS (repeatable); NAME alone names the file's only "
                   "extractor class.")
    h.add_argument("--directory", metavar="ADDR", help="Directory address (default: ZR_DIRECTORY, else %s)."
                   % DEFAULT_DIRECTORY)
    h.add_argument("--host-name", metavar="NAME", help="This host's name (default: py-, machine name, process "
                   "id).")
    h.add_argument("--listen", default=DEFAULT_LISTEN, metavar="ADDR",
                   help="Where this host takes calls (default: loopback, any port).")
    h.add_argument("--advertise", metavar="ADDR", help="What other hosts connect to (NAT, containers).")
    h.add_argument("--curve-keys", metavar="FILE", help="This host's key pair (NAME.key of zr "
                   "keygen), for the connections it makes.")
    h.add_argument("--server-key", metavar="FILE", help="Public key of the directory and the "
                   "other hosts, when they require CURVE.")
    h.add_argument("--heartbeat", type=int, default=round(HEARTBEAT * 1000), metavar="MS",
                   help="Heartbeat interval in ms (default %d); the same for the whole network."
                   % round(HEARTBEAT * 1000))
    h.add_argument("--log-level", default="warning", choices=list(LEVELS), metavar="LEVEL",
                   help="silent, fatal, error, warning (default), info, verbose or debug.")
    return p


def load_extractors(path):
    """The extractor classes the file defines, in the order it defines them."""
    file = pathlib.Path(path)
    if not file.is_file():
        raise _Exit(FAILURE, "%s: no such file" % path)
    name = "zr_hosted_" + "".join(c if c.isalnum() else "_" for c in file.stem)
    loader = importlib.machinery.SourceFileLoader(name, str(file))
    module = types.ModuleType(name)
    module.__file__ = str(file)
    sys.path.insert(0, str(file.resolve().parent))  # the file's own imports beside it
    try:
        loader.exec_module(module)
    except Exception as e:
        raise _Exit(FAILURE, "%s: %s: %s" % (path, type(e).__name__, e)) from None
    defined = [c for c in vars(module).values()
               if inspect.isclass(c) and issubclass(c, Extractor)
               and c.__module__ == module.__name__]
    found = [c for c in defined if not inspect.isabstract(c)]
    if not found:
        # Classes that lack a hook are bases for others, unless they are all there is.
        lacking = "".join("; %s lacks %s" % (c.__name__, ", ".join(sorted(c.__abstractmethods__)))
                          for c in defined)
        raise _Exit(FAILURE, "%s defines no extractor class (a subclass of zr.Extractor or "
                    "zr.SoundExtractor)%s" % (path, lacking))
    return found


def module_names(classes, names):
    """{class: module name} from the --name options."""
    chosen = {c: c.__name__ for c in classes}
    by_name = {c.__name__: c for c in classes}
    for n in names:
        cls_name, sep, name = n.rpartition("=")
        if not sep:
            if len(classes) != 1:
                raise _Exit(USAGE, "--name %s: the file defines %d extractor classes (%s); say "
                            "which, as --name CLASS=NAME" % (n, len(classes),
                                                            ", ".join(by_name)))
            cls_name = classes[0].__name__
        if cls_name not in by_name:
            raise _Exit(USAGE, "--name %s: the file defines no extractor class %s (it has %s)"
                        % (n, cls_name, ", ".join(by_name)))
        if not name:
            raise _Exit(USAGE, "--name %s: the module name is empty" % n)
        chosen[by_name[cls_name]] = name
    taken = [n for n in set(chosen.values()) if list(chosen.values()).count(n) > 1]
    if taken:
        raise _Exit(USAGE, "two extractor classes would both be the module %s; give one another "
                    "name with --name CLASS=NAME" % taken[0])
    return chosen


def host(args):
    logging.basicConfig(level=LEVELS[args.log_level], format="zr: %(name)s: %(message)s")
    classes = load_extractors(args.file)
    names = module_names(classes, args.name)
    for s in (signal.SIGINT, signal.SIGTERM):
        signal.signal(s, _on_signal)
    client = None
    try:
        try:
            client = Client(args.directory, name=args.host_name,
                            heartbeat=args.heartbeat / 1000.0, listen=args.listen,
                            advertise=args.advertise, curve_keys=args.curve_keys,
                            server_key=args.server_key)
        except ZRError as e:
            raise _Exit(NO_DIRECTORY, e.description) from None
        say("host %s joined the directory at %s" % (client.name, client.directory))
        if client.wait_for(MEMORY_MODULE, timeout=DIRECTORY_WAIT) is False:
            say("waiting for %s (a host with --memory)" % MEMORY_MODULE)
        for cls, name in names.items():
            try:
                extractor = cls(client, name)
                client.host(name, extractor, class_name=cls.__name__)
            except ZRError as e:
                raise _Exit(FAILURE, str(e)) from None
            except Exception as e:  # the file's own code failed
                raise _Exit(FAILURE, "%s: %s: %s" % (cls.__name__, type(e).__name__, e)) from None
            say("published %s (%s)" % (name, "soundextractor" if isinstance(
                extractor, SoundExtractor) else "extractor"))
        say("serving at %s; stop with Ctrl-C" % client.endpoint)
        threading.Event().wait()
    except _Signal as s:
        say("shutting down (%s)" % signal.Signals(s.signum).name)
    finally:
        for s in (signal.SIGINT, signal.SIGTERM):  # one signal is enough: shut down in order
            signal.signal(s, signal.SIG_IGN)
        if client is not None:
            client.close()
    say("host %s stopped" % client.name)
    return 0


def main(argv=None):
    args = _parser().parse_args(argv)
    if args.directory is None:
        args.directory = os.environ.get("ZR_DIRECTORY") or DEFAULT_DIRECTORY
    try:
        return host(args)
    except _Exit as e:
        say(str(e))
        return e.code


if __name__ == "__main__":
    sys.exit(main())
