#!/usr/bin/env python3
"""Prints the guest's figures: one line each, median (min..max), beside a peer or limit.

Paths on the processor are counted in instructions (QEMU's -icount with one instruction a count);
devices and boot are timed under plain emulation, as ratios within one run. With --sustain nothing
of this is measured: a load on the journal shows whether it keeps up.
"""
import argparse
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BENCH_IMAGE = ROOT / "build" / "vorn-bench.elf"
HOST_BENCHES = [ROOT / "build" / "bench" / name for name in ("event_bench", "crypto_bench")]
IMAGE = ROOT / "build" / "vorn.elf"
QEMU = os.environ.get("VORN_QEMU", "qemu-system-i386")
AUDITOR = ROOT / "build" / "tools" / "vorn-audit"
JOURNAL_PEER = ROOT / "bench" / "host" / "journal_peer.sh"
PROMPT = b"vorn:/$ "
MANDATED_WAIT_S = 0.5  # the pause before the welcome banner

# name: (limit in instructions, what the limit is)
LIMITS = {
    "event-one-parent": (500, "limit; a Linux i686 tracepoint takes 950"),
    "event-payload-24": (700, "limit"),
    "event-formatted": (1400, "limit; a Linux i686 text marker takes 1710"),
    "switch-recorded": (1500, "limit; Linux i686 takes 4426 recorded, 2201 unrecorded"),
    "interrupt": (150, "limit"),
}
ANSWERS = ("whatif-root", "blame-newest", "search-rebuild", "search-query", "pattern-match-none",
           "cpath-across", "replay-at", "cbisect", "cprof-8192", "eset-by-subsystem",
           "children-far")
LIMITS |= {name: (50_000_000, "limit, 50 ms") for name in ANSWERS}
# name: (peer in the same run, aimed ratio)
PEERS = {
    "memcpy-4096": ("movsl-4096", 1.2),
    "memcpy-608": ("movsl-608", 1.2),
    "memset-4096": ("stosl-4096", 1.2),
    "memset-608": ("stosl-608", 1.2),
}
# name: (unit, how many of it an operation is); shown as a rate. Names without a line of the guest's
# are left out.
RATES = {
    "disk-write-512": ("requests/s", 1),
    "disk-read-512": ("requests/s", 1),
    "disk-write-64K": ("MB/s", 65536 / 1e6),
    "disk-read-64K": ("MB/s", 65536 / 1e6),
    "vofs-write-8M": ("MB/s", 8388608 / 1e6),
    "vofs-read-8M": ("MB/s", 8388608 / 1e6),
    "vofs-create-1K-delete": ("files/s", 1),
    "vofs-mount-255": ("mounts/s", 1),
    "journal-archived-lookup": ("lookups/s", 1),
    "journal-spill-512": ("events/s", 1),
    "journal-verify": ("events/s", 1),
}
# name: (the disk's own rate in the same run, aimed share of it); (None, aimed rate)
DISK_SHARES = {
    "vofs-write-8M": ("disk-write-64K", 0.5),
    "vofs-read-8M": ("disk-read-64K", 0.8),
    "vofs-create-1K-delete": (None, 300),
    "vofs-mount-255": (None, 5),
    "journal-archived-lookup": ("disk-read-512", 0.5),
    "journal-spill-512": (None, 5000),
    "journal-verify": (None, None),
}
# The device syncs every write in the first mode and none in the second.
CACHE_MODES = ("writeback", "unsafe")
DISK_BYTES = 64 << 20
RING_EVENTS = 16384
TIMED_PEERS = {"console-character": ("port-read-and-cell", 3.0)}


def qemu(image, *extra):
    return ["setpriv", "--pdeathsig", "KILL", "--", QEMU, "-kernel", str(image), "-cpu", "max",
            "-m", "128", "-display", "none", "-no-reboot", *extra]


def disk(path, cache):
    return ("-drive", f"file={path},format=raw,if=none,id=disk0,cache={cache}",
            "-device", "virtio-blk-pci,drive=disk0,disable-modern=on")


def guest_text(*extra, timeout=120):
    """Boots the measuring image and returns what it printed."""
    command = qemu(BENCH_IMAGE, "-nic", "none", "-serial", "null", "-serial", "stdio", *extra)
    run = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout,
                         check=False)
    text = run.stdout.decode("latin-1")
    if "bench done" not in text or "bench failed" in text:
        sys.exit(f"bench: the measuring image did not finish:\n{text[-2000:]}")
    return text


def guest_figures(*extra):
    """Its figures as {name: (median, min, max)}."""
    text = guest_text(*extra)
    lines = re.findall(r"^bench (\S+) (\d+) (\d+) (\d+)", text, re.MULTILINE)
    return {name: tuple(map(int, rest)) for name, *rest in lines}


def print_line(name, figure, unit, note=""):
    median, low, high = figure
    print(f"{name:<26} {median:>10} {unit:<13} ({low}..{high})  {note}".rstrip())


def print_guest():
    counted = guest_figures("-icount", "shift=0,sleep=off")
    peers = PEERS | {name: (name + "-naive", 1.0) for name in ANSWERS if name + "-naive" in counted}
    for name, figure in counted.items():
        notes = []
        if name in TIMED_PEERS or name in {peer for peer, _ in TIMED_PEERS.values()}:
            continue
        if name in LIMITS:
            limit, meaning = LIMITS[name]
            notes.append(f"{figure[0] / limit:.2f}x of {limit} ({meaning})")
        if name in peers:
            peer, aim = peers[name]
            notes.append(f"{figure[0] / max(counted[peer][0], 1):.2f}x of {peer}, aim {aim}x")
        print_line(name, figure, "instructions", ", ".join(notes))
    timed = guest_figures()
    for name, (peer, aim) in TIMED_PEERS.items():
        note = f"{timed[name][0] / max(timed[peer][0], 1):.2f}x of {peer}, aim {aim}x"
        print_line(peer, timed[peer], "counts")
        print_line(name, timed[name], "counts", note)


def rates(costs, second, amount):
    """Median, lowest and highest rate out of the costs of an operation that moves `amount`."""
    return tuple(amount * second / max(costs[i], 1) for i in (0, 2, 1))


def host_rate(path, name, amount, synced):
    """What the host itself does of `name` on the same file, as the guest's device asks for it; at
    its end, where no volume has anything."""
    size = 512 if name.endswith("-512") else 65536
    place = DISK_BYTES - 64 * size
    data = b"\xa5" * size
    costs = []
    with open(path, "r+b", buffering=0) as image:
        for _ in range(10):
            start = time.perf_counter()
            for i in range(64):
                if "read" in name:
                    os.pread(image.fileno(), size, place + i * size)
                else:
                    os.pwrite(image.fileno(), data, place + i * size)
                    if synced:
                        os.fdatasync(image.fileno())
            costs.append((time.perf_counter() - start) / 64)
    return amount / sorted(costs[1:])[4]


def share_note(name, medians):
    peer, aim = DISK_SHARES[name]
    if peer is None:
        return f"aim {aim}" if aim else "no aim"
    return f"{medians[name] / medians[peer]:.2f}x of {peer}, aim {aim}"


def print_audit(image):
    """The host's auditor on the sealed journal that was measured last, beside the host's own."""
    costs = []
    for _ in range(10):
        start = time.perf_counter()
        report = audit(image)
        costs.append(time.perf_counter() - start)
    if report["verdict"] != "SOUND":
        sys.exit(f"bench: the measured journal is {report['verdict']}")
    events, costs = report["events"], sorted(costs[1:])
    peer = subprocess.run([JOURNAL_PEER, str(events)], capture_output=True, text=True,
                          check=False).stdout.strip()
    note = f"{float(peer) / costs[4]:.1f}x of journalctl --verify, sealed, aim 3x" if peer else \
        "no journalctl beside it: that takes root, systemd and a namespace of its own"
    figure = tuple(f"{events / costs[i]:.0f}" for i in (4, 8, 0))
    print_line("audit", figure, "events/s", f"{events} events; {note}")


def print_storage():
    with tempfile.NamedTemporaryFile(dir=ROOT / "build", suffix=".img") as image:
        image.truncate(DISK_BYTES)
        for cache in CACHE_MODES:
            figures = guest_figures(*disk(image.name, cache))
            second = figures["second"][0]
            medians = {}
            for name, (unit, amount) in RATES.items():
                if name not in figures:
                    continue
                figure = rates(figures[name], second, amount)
                medians[name] = figure[0]
                if name in DISK_SHARES:
                    note = share_note(name, medians)
                else:
                    peer = host_rate(image.name, name, amount, cache == "writeback")
                    note = f"{figure[0] / peer:.2f}x of the host's own calls"
                digits = 0 if figure[0] >= 1000 else 1
                print_line(name, tuple(f"{rate:.{digits}f}" for rate in figure), unit,
                           f"cache={cache}; {note}")
        print_audit(image.name)


def audit(image):
    """The auditor's report."""
    run = subprocess.run([AUDITOR, image, "--json"], capture_output=True, check=False)
    return json.loads(run.stdout)


def sustain(rate, seconds, cache):
    """The journal under a load: exit status 1 when an event was lost."""
    with tempfile.NamedTemporaryFile(dir=ROOT / "build", suffix=".img") as image:
        image.truncate(DISK_BYTES)
        text = guest_text(*disk(image.name, cache), "-append", f"rate={rate} seconds={seconds}",
                          timeout=4 * seconds + 120)
        verdict = audit(image.name)["verdict"]
    line = re.search(r"^bench sustained (\d+) (\d+) (\d+) (\d+)", text, re.MULTILINE)
    events, lost, waiting, tenths = map(int, line.groups())
    taken = tenths / 10
    print_line("journal-sustained", (f"{events / taken:.0f}",) * 3, "events/s",
               f"cache={cache}; {events} events in {taken:.0f} s, {lost} lost, at most {waiting} "
               f"waited of {RING_EVENTS}; the journal is {verdict}")
    return 0 if lost == 0 and verdict == "SOUND" else 1


class Guest:
    """The real image with its serial line on pipes."""

    def __init__(self):
        self.started = time.monotonic()
        self.process = subprocess.Popen(qemu(IMAGE, "-serial", "stdio", "-nic", "none"),
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.seen = b""

    def wait_for(self, text):
        while text not in self.seen:
            chunk = os.read(self.process.stdout.fileno(), 4096)
            if not chunk:
                sys.exit(f"bench: the image stopped:\n{self.seen[-2000:]!r}")
            self.seen += chunk
        self.seen = self.seen.split(text, 1)[1]

    def command(self, line):
        self.process.stdin.write(line.encode() + b"\r")
        self.process.stdin.flush()

    def cpu_seconds(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rsplit(")", 1)[1]
        user, system = fields.split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.process.kill()
        self.process.wait()


def boot_seconds():
    """From QEMU's start to the first answered prompt."""
    guest = Guest()
    guest.wait_for(PROMPT)
    guest.command("uname")
    guest.wait_for(b"i686 x86")
    elapsed = time.monotonic() - guest.started
    guest.stop()
    return elapsed


def print_boot():
    runs = sorted(boot_seconds() - MANDATED_WAIT_S for _ in range(5))
    figure = tuple(f"{runs[i]:.3f}" for i in (2, 0, 4))
    print_line("boot-to-answered-prompt", figure, "s",
               "mandated waits subtracted; aim 0.5 (a minimal Linux i686 takes 4.6)")


def print_idle():
    """Host processor share and recorded events of a system left alone."""
    span = float(os.environ.get("VORN_BENCH_IDLE", "10"))
    guest = Guest()
    guest.wait_for(PROMPT)
    time.sleep(1)
    before, start = guest.cpu_seconds(), time.monotonic()
    time.sleep(span)
    share = 100 * (guest.cpu_seconds() - before) / (time.monotonic() - start)
    counts = []
    for wait in (0, span):
        time.sleep(wait)
        guest.command("graph")
        guest.wait_for(b"Causal Graph: ")
        while b" events" not in guest.seen:
            guest.seen += os.read(guest.process.stdout.fileno(), 4096)
        counts.append(int(guest.seen.split(b" ", 1)[0]))
        guest.wait_for(PROMPT)
    guest.stop()
    print_line("idle-host-share", (f"{share:.1f}",) * 3, "% of a core", "aim under 5")
    print_line("idle-events", (f"{(counts[1] - counts[0]) / span:.1f}",) * 3, "events/s",
               "aim under 5; the six keys that ask are among them")


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="./vorn bench", description="Prints the system's figures, one a line.")
    parser.add_argument("--sustain", type=int, metavar="RATE",
                        help="only: put this many events a second on the journal; exit status 1 "
                             "when one is lost")
    parser.add_argument("--seconds", type=int, default=180, help="for so long (180)")
    parser.add_argument("--cache", choices=CACHE_MODES, default=CACHE_MODES[0],
                        help="on a disk of this mode (writeback: every write is synced)")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    if not BENCH_IMAGE.exists():
        sys.exit("bench: build/vorn-bench.elf is missing; ./vorn bench makes it")
    if arguments.sustain:
        sys.exit(sustain(arguments.sustain, arguments.seconds, arguments.cache))
    print_guest()
    print_storage()
    print_boot()
    print_idle()
    sys.stdout.flush()
    for bench in HOST_BENCHES:
        if bench.exists():
            subprocess.run([bench], check=True)


if __name__ == "__main__":
    main()
