"""The client's names, defaults and error texts are the C++ ones, read from their headers."""

import re

from conftest import ROOT
from zr import _platform as p


def constants(header):
    text = (ROOT / header).read_text()
    found = {}
    for m in re.finditer(r"inline constexpr [^;]*?\b(k\w+)\s*(?:\{([^}]*)\}|=\s*([^;]+));", text):
        found[m.group(1)] = (m.group(2) or m.group(3)).strip()
    return found


def test_the_platforms_names_defaults_and_texts_are_those_of_the_cpp_headers():
    names = constants("libzrcommon/zrcommon/zrservicenames.h")
    defaults = constants("libzrerror/zrerror/zrdefaults.h")
    texts = constants("libzrerror/zrerror/zrerrortexts.h")
    assert names["kMemoryServiceName"] == '"%s"' % p.MEMORY_MODULE
    assert names["kAudioDeviceServiceName"] == '"%s"' % p.DEVICE_MODULE
    assert names["kEndOfStreamEvent"] == '"%s"' % p.END_OF_STREAM_EVENT
    assert defaults["kDefaultDirectory"] == '"%s"' % p.DEFAULT_DIRECTORY
    assert defaults["kDefaultListen"] == '"%s"' % p.DEFAULT_LISTEN.replace(":*", ":0")
    assert int(defaults["kDefaultHeartbeat"]) == round(p.HEARTBEAT * 1000)
    assert int(defaults["kHeartbeatsToDeath"]) == p.HEARTBEATS_TO_DEATH
    assert int(defaults["kDirectoryWait"]) == round(p.DIRECTORY_WAIT * 1000)
    assert texts["kModuleDestroyed"] == '"%s"' % p.MODULE_DESTROYED
    assert texts["kDeadlineExceeded"] == '"%s"' % p.DEADLINE_EXCEEDED
    assert p.PLATFORM_VERSION == (ROOT / "VERSION").read_text().strip()
