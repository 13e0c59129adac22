"""Every command the documentation shows, run as a reader would paste it, so that the docs cannot
drift from the programs.

The documents are README.md, CONTRIBUTING.md and docs/*.md. Each ```sh block is a shell script
that must exit 0, run in order with the blocks before it in the same document: in a scratch
directory (also the home directory) that holds the source tree's data/, examples/, python/,
tools/ and bench/ and the build as build/, with the built `zr` first on the PATH, and the
environment the blocks before it exported. Every document gets a directory address of its own, so that this test runs beside the
rest of the suite: the default address written in a command (127.0.0.1:7470) stands for it, and
the hosts it starts have it as ZR_DIRECTORY. An HTML comment right before a block says how else
to take it:

  <!-- test: background -->      each command starts and keeps running (a host), waited for
                                  until it says "serving"; at the end of the document each gets
                                  SIGINT and must exit 0
  <!-- test: terminals -->       one terminal per command: all but the last as in background,
                                  the last in the foreground, then the others are stopped
  <!-- test: exits N -->         the block must exit N
  <!-- test: prints TEXT -->     its output must contain TEXT (with exit 0)
  <!-- test: python -->          a ```python block, run by the Python the client runs on
  <!-- test: excerpt of FILE --> its lines appear in FILE, in order (code quoted from a file)
  <!-- test: not run: REASON --> not run, for the reason given (hardware, a second machine,
                                  minutes of time); still, every `zr SUBCOMMAND --option` in it
                                  must be one zr has, every ./setup.sh command one it takes,
                                  and every program path must exist

Any other ```sh block is run; a ```python block without a marker is code, not a command."""

import os
import pathlib
import re
import shlex
import signal
import socket
import subprocess
import threading

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ZR_BUILD_DIR", ROOT / "build"))
ZR = BUILD / "tools" / "zr" / "zr"
PYTHON = os.environ.get("ZR_PYTHON", "/usr/bin/python3")
DOCUMENTS = ["README.md", "CONTRIBUTING.md"] + sorted(
    str(p.relative_to(ROOT)) for p in (ROOT / "docs").glob("*.md"))
DEFAULT_ADDRESS = "127.0.0.1:7470"
# An upper bound that turns a hang into a failure, never a pace.
LIMIT = 120


class Block:
    def __init__(self, document, line, language, marker, text):
        self.document, self.line, self.language, self.marker, self.text = (
            document, line, language, marker, text)

    def __repr__(self):
        return "%s:%d" % (self.document, self.line)

    def commands(self):
        """The block's commands: lines without comments, a backslash joining the next line."""
        joined, out = "", []
        for raw in self.text.splitlines():
            line = raw.split(" #")[0].rstrip() if not raw.lstrip().startswith("#") else ""
            if line.endswith("\\"):
                joined += line[:-1] + " "
                continue
            line = (joined + line).strip()
            joined = ""
            if line:
                out.append(line)
        return out


def blocks(document):
    lines = (ROOT / document).read_text().splitlines()
    found, i = [], 0
    while i < len(lines):
        m = re.match(r"^```(\w*)\s*$", lines[i])
        if not m:
            i += 1
            continue
        marker = re.match(r"^<!-- test: (.*) -->$", lines[i - 1]) if i else None
        end = next(j for j in range(i + 1, len(lines)) if lines[j].startswith("```"))
        found.append(Block(document, i + 1, m.group(1), marker.group(1) if marker else "",
                           "\n".join(lines[i + 1:end])))
        i = end + 1
    return found


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Session:
    """One document's scratch directory, environment and background processes."""

    def __init__(self, scratch):
        self.cwd = scratch
        for name in ("data", "examples", "python", "tools", "bench"):
            (scratch / name).symlink_to(ROOT / name)
        (scratch / "build").symlink_to(BUILD)
        self.address = "127.0.0.1:%d" % free_port()
        # The scratch directory is the home too: what a command installs under ~ stays there.
        self.env = dict(os.environ, PATH="%s:%s" % (ZR.parent, os.environ["PATH"]),
                        HOME=str(scratch), PYTHONDONTWRITEBYTECODE="1")
        self.env.pop("ZR_DIRECTORY", None)
        self.background = []

    def script(self, text):
        return text.replace(DEFAULT_ADDRESS, self.address)

    def run(self, block, text):
        envfile = self.cwd / ".env"
        script = "set -e\n%s\nenv -0 > %s\n" % (self.script(text), shlex.quote(str(envfile)))
        r = subprocess.run(["bash", "-c", script], cwd=self.cwd, env=self.env, text=True,
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=LIMIT)
        if r.returncode == 0:
            self.env = dict(kv.split("=", 1) for kv in envfile.read_text().split("\0") if "=" in kv)
        return r

    def start(self, block, command):
        self.background.append(Background(block, command, self))

    def stop(self, since=0):
        failures = [b.stop() for b in reversed(self.background[since:])]
        del self.background[since:]
        return [f for f in failures if f]


class Background:
    """A command left running, its output drained by a thread of its own so that it never blocks
    on a full pipe; constructed once it says that it serves."""

    def __init__(self, block, command, session):
        self.name = "%r: %s" % (block, command)
        self.lines = []
        self.serving = threading.Event()
        self.process = subprocess.Popen(
            ["bash", "-c", "exec env " + session.script(command)], cwd=session.cwd,
            env=dict(session.env, ZR_DIRECTORY="tcp://" + session.address),
            text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.reader = threading.Thread(target=self._read)
        self.reader.start()
        if not self.serving.wait(LIMIT) or self.process.poll() is not None:
            self.stop()
            raise AssertionError("%s never said it serves:\n%s" % (self.name, "".join(self.lines)))

    def _read(self):
        for line in self.process.stdout:
            self.lines.append(line)
            if "serving" in line:
                self.serving.set()
        self.serving.set()  # it ended: whoever waits, look

    def stop(self):
        """Sends SIGINT; a failure's text, or None when it exits 0."""
        self.process.send_signal(signal.SIGINT)
        try:
            self.process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.reader.join()
        if self.process.returncode == 0:
            return None
        return "%s exited %d on SIGINT:\n%s" % (self.name, self.process.returncode,
                                                  "".join(self.lines[-20:]))


def check_not_run(block, reason):
    assert reason.strip(), "%r: say why it is not run" % block
    helps = {}
    usage = re.search(r"usage: \$0 ([^\"]*)", (ROOT / "setup.sh").read_text()).group(1)
    for command in block.commands():
        words = shlex.split(command.replace("$(", "").replace(")", ""))
        words = [w for w in words if "=" not in w or w.startswith("-")]
        if not words:
            continue
        program = words[0]
        if program == "zr" and len(words) > 1:
            sub = words[1]
            if sub not in helps:
                r = subprocess.run([str(ZR), sub, "--help"], text=True, capture_output=True)
                assert r.returncode == 0, "%r: zr has no subcommand %s" % (block, sub)
                helps[sub] = r.stdout
            for option in re.findall(r"(?:^|\s)(--?[a-z][\w-]*)", " ".join(words[2:])):
                assert re.search(r"(^|[\s,])%s\b" % re.escape(option), helps[sub]), (
                    "%r: zr %s has no option %s" % (block, sub, option))
        elif program == "./setup.sh":
            assert len(words) < 2 or words[1] in usage, "%r: setup.sh takes no %s" % (block,
                                                                                         words[1])
        elif program.startswith("build/"):  # built, or at least its source is there
            built = program[len("build/"):]
            assert (BUILD / built).exists() or (ROOT / built).with_suffix(".cpp").exists(), (
                "%r: %s is neither built nor a source of this tree" % (block, program))
        elif "/" in program:
            assert (ROOT / program).exists(), "%r: %s does not exist" % (block, program)


def check_excerpt(block, file):
    source = [l.strip() for l in (ROOT / file).read_text().splitlines()]
    at = 0
    for line in (l.strip() for l in block.text.splitlines()):
        if not line or line == "...":
            continue
        assert line in source[at:], "%r: %r is not in %s (after line %d)" % (block, line, file, at)
        at = source.index(line, at) + 1


@pytest.mark.parametrize("document", DOCUMENTS)
def test_every_command_of_the_document_runs(document, tmp_path):
    session = Session(tmp_path)
    not_run = []
    try:
        for block in blocks(document):
            marker = block.marker
            if marker.startswith("not run:"):
                check_not_run(block, marker[len("not run:"):])
                not_run.append(block)
            elif marker.startswith("excerpt of "):
                check_excerpt(block, marker[len("excerpt of "):])
            elif block.language == "python" and marker == "python":
                r = subprocess.run([PYTHON, "-c", session.script(block.text)], cwd=session.cwd,
                                   env=dict(session.env, PYTHONPATH=str(ROOT / "python")),
                                   text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   timeout=LIMIT)
                assert r.returncode == 0, "%r failed:\n%s" % (block, r.stdout)
            elif block.language != "sh":
                assert not marker, "%r: a marker on a %s block" % (block, block.language or "text")
            elif marker == "background":
                for command in block.commands():
                    session.start(block, command)
            elif marker == "terminals":
                commands, first = block.commands(), len(session.background)
                for command in commands[:-1]:
                    session.start(block, command)
                r = session.run(block, commands[-1])
                assert r.returncode == 0, "%r: %s exited %d:\n%s" % (block, commands[-1],
                                                                     r.returncode, r.stdout)
                failures = session.stop(first)
                assert not failures, "\n".join(failures)
            else:
                m = re.match(r"(exits (\d+)|prints (.*))?$", marker)
                assert m, "%r: unknown marker %r" % (block, marker)
                status = int(m.group(2) or 0)
                r = session.run(block, block.text)
                assert r.returncode == status, "%r exited %d, not %d:\n%s" % (
                    block, r.returncode, status, r.stdout)
                if m.group(3):
                    assert m.group(3) in r.stdout, "%r printed no %r:\n%s" % (block, m.group(3),
                                                                              r.stdout)
    finally:
        failures = session.stop()
    assert not failures, "\n".join(failures)
    for block in not_run:
        print("not run: %r (%s)" % (block, block.marker[len("not run:"):].strip()))


def test_the_documented_defaults_are_those_of_the_header():
    header = (ROOT / "libzrerror" / "zrerror" / "zrdefaults.h").read_text()
    constants = re.findall(r"inline constexpr [^;]*?\b(k\w+)\s*(?:\{([^}]*)\}|=\s*([^;]+));",
                           header)
    assert constants
    table = {m.group(1): m.group(2) for m in
             re.finditer(r"^\| `(k\w+)` \| ([^|]*) \|", (ROOT / "docs" / "networking.md").read_text(),
                         re.M)}
    for name, braced, assigned in constants:
        value = (braced or assigned).strip()
        shown = table.get(name)
        assert shown is not None, "docs/networking.md's table of defaults lacks %s" % name
        m = re.match(r"std::size_t\{(\d+)\} << 20$", value)
        expected = "%s MiB" % m.group(1) if m else value.strip('"')
        assert expected in shown, "%s is %s, the documentation says %s" % (name, value, shown)
