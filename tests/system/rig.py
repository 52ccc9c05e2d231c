"""A machine under test: QEMU with the kernel's image, its serial line, its keyboard, its screen.

Every wait is for a condition with a limit. What must never happen (a fault, a broken assertion, a
reset, the end of QEMU) fails whatever test sees it, unless the test says that it expects it.
"""
import contextlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

import pexpect
from pexpect.popen_spawn import PopenSpawn

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools"))
from qmp import Qmp, QmpError  # noqa: E402  (found through the line above)

IMAGE = ROOT / "build" / "vorn.elf"
LOGS = ROOT / "build" / "test-logs"
QEMU = os.environ.get("VORN_QEMU", "qemu-system-i386")
LIMIT = 60.0  # seconds that any single wait may take; far more than a sound machine needs

# An empty line being edited: the prompt, what wipes the old line, and the prompt again.
PROMPT = re.compile(r"\rvorn:\S*\$ {11}\rvorn:\S*\$ ")
BAD = re.compile(r"\[FAULT\].*|\[ASSERT\].*")

VGA_TEXT, VGA_ROWS, VGA_COLUMNS = 0xB8000, 25, 80

SHIFTED = dict(zip('!@#$%^&*()_+{}:"~|<>?', "1234567890-=[];'`\\,./"))
QCODES = {
    " ": "spc", "\n": "ret", "\t": "tab", "-": "minus", "=": "equal", "[": "bracket_left",
    "]": "bracket_right", ";": "semicolon", "'": "apostrophe", "`": "grave_accent",
    "\\": "backslash", ",": "comma", ".": "dot", "/": "slash",
}


class MachineFailed(AssertionError):
    """The machine did what no machine may do."""


def chord_of(character):
    """The keys, by QEMU's names, that type `character` on a US keyboard."""
    plain = SHIFTED.get(character, character.lower())
    key = QCODES.get(plain, plain)
    return "shift+" + key if plain != character else key


class Disk:
    """A disk of `size` bytes: a sparse image, made at its first boot in that machine's folder.

    It may be booted again once its machine is closed: machine(disk=one.disk). `cache` is QEMU's
    mode; only a test about durability needs another one than "unsafe".
    """

    def __init__(self, size=64 << 20, cache="unsafe", path=None):
        self.size, self.cache, self.path = size, cache, path

    def attach(self, folder):
        """QEMU's arguments; the image is there."""
        self.path = pathlib.Path(self.path or folder / "disk.img")
        if not self.path.exists():
            with open(self.path, "wb") as image:
                image.truncate(self.size)
        return ["-drive", f"file={self.path},format=raw,if=none,id=disk0,cache={self.cache}",
                "-device", "virtio-blk-pci,drive=disk0,disable-modern=on"]

    def read(self, offset, size):
        """`size` bytes of the image; no machine runs on it."""
        with open(self.path, "rb") as image:
            image.seek(offset)
            return image.read(size)

    def write(self, offset, data):
        """Changes the image; no machine runs on it."""
        with open(self.path, "r+b") as image:
            image.seek(offset)
            image.write(data)


class Machine:
    """One machine, started by the constructor; `close` ends it.

    memory (MB), cpus, disk (a Disk; True: a fresh one, False: none), net (False: no card), image,
    args (more of QEMU's). What it runs on stays in `disk`.
    """

    def __init__(self, memory=128, cpus=1, disk=True, net=True, image=IMAGE, args=(), folder=None):
        self.folder = pathlib.Path(folder or tempfile.mkdtemp(prefix="vorn-"))
        # A socket's path has room for 107 characters only, so it stands in a folder of its own.
        self._sockets = tempfile.mkdtemp(prefix="vq-")
        self._qmp = None
        self.transcript = ""  # all that the serial line said
        self._checked = 0     # up to here it was searched for what must not happen
        self._faults_expected = self._end_expected = False
        self._closed = False
        self.disk = Disk() if disk is True else disk or None
        command = self._command(memory, cpus, image) + self._network(net)
        if self.disk is not None:
            command += self.disk.attach(self.folder)
        self.serial = PopenSpawn(["setpriv", "--pdeathsig", "KILL", "--", *command, *args],
                                 timeout=LIMIT, encoding="utf-8", codec_errors="replace")
        self.serial.logfile_read = self

    def _command(self, memory, cpus, image):
        return [QEMU, "-kernel", str(image), "-accel", "tcg", "-cpu", "max", "-m", str(memory),
                "-smp", str(cpus), "-display", "none", "-no-reboot", "-serial", "stdio",
                "-monitor", "none", "-qmp", f"unix:{self._sockets}/qmp,server=on,wait=off"]

    def _network(self, wanted):
        if not wanted:
            return ["-nic", "none"]
        return ["-netdev", "user,id=net0,restrict=on",
                "-device", "virtio-net-pci,netdev=net0,disable-modern=on,romfile="]

    def write(self, text):
        """Receives what was read from the serial line."""
        self.transcript += text

    def flush(self):
        """Belongs to `write`."""

    # --- Waiting --------------------------------------------------------------------------------
    def wait_for(self, pattern, limit=LIMIT):
        """Waits until the serial line says `pattern` (a compiled expression, or text as it is);
        returns what came before it."""
        wanted = pattern if isinstance(pattern, re.Pattern) else re.compile(re.escape(pattern))
        found = self.serial.expect([wanted, pexpect.TIMEOUT, pexpect.EOF], timeout=limit)
        self.check()
        if found == 1:
            self._fail(f"no {wanted.pattern!r} within {limit} s")
        if found == 2:
            self._fail(f"the machine reset or ended before {wanted.pattern!r}")
        return self.serial.before

    def wait_prompt(self, limit=LIMIT):
        """Waits for an empty prompt; returns what the serial line said before it."""
        return self.wait_for(PROMPT, limit)

    def wait_until(self, condition, what, limit=LIMIT):
        """Polls `condition` until it returns something true, which it returns."""
        end = time.monotonic() + limit
        while True:
            result = condition()
            if result:
                return result
            if time.monotonic() > end:
                self._fail(f"not within {limit} s: {what}")
            time.sleep(0.02)

    def read_for(self, seconds):
        """Lets the machine run and returns all that the serial line said meanwhile."""
        start = len(self.transcript)
        self.serial.expect([pexpect.TIMEOUT, pexpect.EOF], timeout=seconds)
        self.check()
        return self.transcript[start:]

    # --- Talking --------------------------------------------------------------------------------
    def send(self, text):
        """Types `text` on the serial line."""
        self.serial.send(text)

    def run(self, command, ps2=False, limit=LIMIT):
        """Runs one command line at the prompt; returns its output, line ends as "\\n"."""
        if ps2:
            self.type_ps2(command + "\n")
        else:
            self.send(command + "\r")
            self.wait_for(command)
        output = self.wait_prompt(limit)
        return output.replace("\r\n", "\n").removeprefix("\n")

    def press(self, *chords):
        """Presses and releases keys by QEMU's names, those of a chord joined: "up", "ctrl+l"."""
        for chord in chords:
            names = chord.split("+")
            self._key_events(names, True)
            self._key_events(reversed(names), False)

    def hold(self, chord):
        """Presses the keys of a chord for good, as one that ends the machine is."""
        self._key_events(chord.split("+"), True)

    def _key_events(self, names, down):
        self.qmp.run("input-send-event", events=[
            {"type": "key", "data": {"down": down, "key": {"type": "qcode", "data": name}}}
            for name in names])

    def type_ps2(self, text):
        """Types `text` on the PS/2 keyboard, the cursor being at the line's end. The controller's
        queue is short: each character waits for the echo of the one before."""
        for character in text:
            self.press(chord_of(character))
            if character != "\n":
                self.wait_for(character)

    # --- Looking --------------------------------------------------------------------------------
    @property
    def qmp(self):
        """The connection to QEMU's machine protocol."""
        if self._qmp is None:
            path = os.path.join(self._sockets, "qmp")
            self.wait_until(lambda: os.path.exists(path), "QEMU's socket", 10)
            self._qmp = Qmp(path)
        return self._qmp

    def memory(self, address, size):
        """`size` bytes of physical memory."""
        path = os.path.join(self._sockets, "memory")
        self.qmp.run("pmemsave", val=address, size=size, filename=path)
        return pathlib.Path(path).read_bytes()

    def vga_text(self):
        """The 25 lines of the VGA screen, without the blanks at their ends."""
        cells = self.memory(VGA_TEXT, 2 * VGA_ROWS * VGA_COLUMNS)[::2].decode("cp437")
        return [cells[at:at + VGA_COLUMNS].rstrip() for at in range(0, len(cells), VGA_COLUMNS)]

    def wait_vga(self, text, limit=LIMIT):
        """Waits until a line of the VGA screen holds `text`; returns the lines."""
        def shown():
            lines = self.vga_text()
            return lines if any(text in line for line in lines) else None
        return self.wait_until(shown, f"{text!r} on the VGA screen", limit)

    # --- What must not happen -------------------------------------------------------------------
    def _fail(self, what):
        self._end_expected = True  # one complaint is enough
        raise MachineFailed(f"{what}; the serial line's last words:\n{self.transcript[-1500:]}")

    def check(self):
        """Fails if the machine faulted or asserted since the last check."""
        found = None if self._faults_expected else BAD.search(self.transcript, self._checked)
        self._checked = len(self.transcript)
        if found:
            self._fail(f"the machine says {found.group(0)!r}")
        # The last line may be a part of a banner.
        if not self._faults_expected:
            self._checked = self.transcript.rfind("\n") + 1

    @contextlib.contextmanager
    def expect_fault(self):
        """Within it faults and assertions are what the test is about."""
        self.check()
        self._faults_expected = True
        try:
            yield self
        finally:
            self._checked = len(self.transcript)
            self._faults_expected = False

    def wait_end(self, limit=LIMIT):
        """Waits for the machine to switch itself off; returns its last words."""
        self._end_expected = True
        if self.serial.expect([pexpect.EOF, pexpect.TIMEOUT], timeout=limit) == 1:
            self._fail(f"the machine still runs after {limit} s")
        self.check()
        return self.serial.before

    def close(self):
        """Ends the machine as a loss of power would; fails for what it did since the last check.
        A second call does nothing."""
        if self._closed:
            return
        self._closed = True
        try:
            ended = self.serial.expect([pexpect.TIMEOUT, pexpect.EOF], timeout=0.05) == 1
            self.check()
            if ended and not self._end_expected:
                self._fail("the machine reset or ended")
        finally:
            self._end()

    def _end(self):
        if self._qmp is not None:
            with contextlib.suppress(OSError, QmpError):
                self._qmp.run("quit")
            self._qmp.close()
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.serial.proc.wait(timeout=0.2)
        self.serial.proc.kill()
        self.serial.proc.wait()
        shutil.rmtree(self._sockets, ignore_errors=True)
