"""The platform's names, defaults and compared error texts, as the C++ side writes them once
(zrcommon/zrservicenames.h, zrerror/zrdefaults.h, zrerror/zrerrortexts.h; a test holds the two
together), and its version, read from the one file that gives it."""

import pathlib


def _read_version():
    here = pathlib.Path(__file__).resolve().parent
    # Installed, the file sits in the package; in the source tree, at its root.
    for candidate in (here / "VERSION", here.parent.parent / "VERSION"):
        if candidate.is_file():
            return candidate.read_text().strip()
    raise ImportError("the zr package has no VERSION file beside it or at the source tree's root")


# The platform's version, as `zr --version` gives it.
PLATFORM_VERSION = _read_version()

MEMORY_MODULE = "ZRMemory"
DEVICE_MODULE = "ZRAudioDevice"
END_OF_STREAM_EVENT = "ZRAudioDevice/EndOfStream"

DEFAULT_DIRECTORY = "tcp://127.0.0.1:7470"
DEFAULT_LISTEN = "tcp://127.0.0.1:*"  # any free port, in ZeroMQ's words
HEARTBEAT = 0.250  # seconds
HEARTBEATS_TO_DEATH = 3
DIRECTORY_WAIT = 3.0  # seconds

MODULE_DESTROYED = "module destroyed"
DEADLINE_EXCEEDED = "deadline exceeded"
