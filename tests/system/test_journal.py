"""The journal from the keyboard to the auditor: written, sealed, powered off, proved, tampered
with, and still known to the next boot."""
import re
import struct
import subprocess

import pytest

import journal_oracle as oracle
from rig import ROOT, Disk, Machine

AUDITOR = ROOT / "build" / "tools" / "vorn-audit"
VERIFIED = "journal verify: ok\n"


def audit(disk, *words):
    return subprocess.run([AUDITOR, disk.path, *words], capture_output=True, text=True, timeout=60,
                          check=False)


def judge(disk):
    return oracle.judge(oracle.read_volume(disk.path.read_bytes()))


def event_of(one, text):
    return re.findall(rf"\[(\d+)\] .*{text}", one.run("events 64"))[-1]


def halt(one):
    one.send("halt\r")
    one.wait_end()
    one.close()


def seal(one):
    assert one.run("journal spill 100000").startswith("Spilled ")
    assert one.run("journal sign-all").endswith("failed=0 status=PASS\n")
    assert one.run("journal verify").endswith(VERIFIED)


def test_a_sealed_journal_is_proved_and_one_changed_byte_is_found(machine):
    one = machine(net=False)
    one.run("write /docs/a.txt hello")
    written = event_of(one, "write a.txt")
    assert "VERDICT:   UNSIGNED" in one.run(f"attest {written}")
    seal(one)
    assert "VERDICT:   SIGNED & VERIFIABLE" in one.run(f"attest {written}")
    assert one.run(f"attest verify {written}").startswith("RECEIPT VALID: event #")
    bundle = one.run(f"capsule {written}")
    assert "-> VERIFIABLE" in bundle and f"saved to /capsule/{written}.txt" in bundle
    assert one.run(f"diskcat /capsule/{written}.txt") in bundle + "\n"
    assert "PASS" in one.run(f"journal epoch-proof 1 {written}")
    halt(one)

    assert judge(one.disk) == oracle.SOUND
    done = audit(one.disk)
    assert done.returncode == 0 and "VERDICT: SOUND" in done.stdout, done
    blocks, _ = oracle.place_files(one.disk.path.read_bytes())["/causal/seg-00000001.jnl"]
    place = blocks[0] * 512 + 44 + 37  # the first record's description
    byte = one.disk.read(place, 1)[0]
    one.disk.write(place, bytes([byte ^ 1]))
    done = audit(one.disk)
    assert done.returncode == 1 == judge(one.disk)
    assert "seg-00000001.jnl has an event hash that differs from the sidecar's in record 0" in \
        done.stdout
    two = machine(net=False, disk=one.disk)
    assert "verify: bad footer in /causal/seg-00000001.jnl" in two.run("journal verify")


def test_the_next_boot_knows_the_first_ones_events_and_numbers_go_on(machine):
    one = machine(net=False)
    one.run("write /docs/a.txt hello")
    written = event_of(one, "write a.txt")
    shown = re.search(r"write a.txt.*pid=\d+", one.run(f"trace {written}")).group(0)
    one.run("journal spill 100000")
    one.run("journal spill-through last")
    halt(one)

    two = machine(net=False, disk=one.disk)
    newest = int(re.search(r"\| (\d+) -- \d+ \(in ring\)", two.run("journal")).group(1)) - 1
    assert newest > int(written)
    assert shown in two.run(f"trace {written}")
    assert "cmd: write" in two.run(f"trace {written}")
    assert shown in two.run(f"journal lookup {written}")
    assert "source:    journal" in two.run(f"attest {written}")
    seal(two)
    halt(two)
    done = audit(two.disk)
    assert done.returncode == 0, done


def press_the_button(one):
    one.qmp.run("system_powerdown")
    one.wait_end()
    one.close()


def archived(files):
    """Number, Lamport time, ticks, subsystem and text of every event in segments and snapshot."""
    for path, data in files.items():
        if path.endswith(".jnl"):
            record, data = oracle.RECORD, data[44:-48]
        elif path == "/causal/journal.bin":
            record, data = struct.Struct("<IIQIxxxxB16s80s17x"), data[24:]
        else:
            continue
        for number, _, lamport, ticks, _, name, text, *_ in record.iter_unpack(data):
            yield number, (lamport, ticks, name, text)


@pytest.mark.parametrize("sectors", [1000, 10 << 21])
def test_however_a_boot_ends_the_journal_is_sound_and_no_number_comes_back(machine, sectors):
    disk, known = Disk(size=512 * sectors), {}
    for boot, end in enumerate([halt, Machine.close, press_the_button, Machine.close, halt]):
        one = machine(net=False, disk=disk)
        assert one.run("journal verify").endswith(VERIFIED)
        one.run(f"diskfill /full{boot} 100K")  # at last there is no room on the smaller one
        one.run("journal spill 20")
        one.run("attest last")
        one.run("journal spill-through last")
        one.run("cflush")
        end(one)
        files = oracle.read_volume(disk.read(0, 8 << 20))
        assert oracle.judge(files) == audit(disk).returncode == oracle.UNSEALED
        for number, event in archived(files):
            assert known.setdefault(number, event) == event, (end, number)
    one = machine(net=False, disk=disk)
    assert f"disk) | {max(known) + 1} -- " in one.run("journal")


def test_without_a_disk_every_subcommand_says_something_and_changes_nothing(machine):
    one = machine(net=False, disk=False)
    assert one.run("journal").startswith("Causal Journal:\n  Segments:   0 / 32 max\n")
    for words, wanted in (("spill", "Spilled 0 events"), ("verify", "journal verify: failed"),
                          ("sign 1", "journal sign: segment 1 signing key unavailable"),
                          ("verify-sig 1", "signing key unavailable"),
                          ("sign", "Usage: journal sign"), ("lookup last", "no disk"),
                          ("verify-segment x", "no disk"), ("json footer 1", "no disk"),
                          ("nonsense", "Usage: journal [segments|index|")):
        assert wanted in one.run(f"journal {words}"), words
    assert one.run("attest 0") == "attest: cannot resolve event '0'\n"
    assert one.run("attest verify 1") == "RECEIPT INVALID: event #1 not in a durable segment\n"
    assert one.run("capsule last").endswith(
        "(disk unavailable -- capsule shown on console only)\n")
