"""Start-up on good machines and bad ones, and a system that is left alone."""
import re

import pytest

from rig import Disk, ROOT


def boot_lines(text):
    return re.findall(r"^\[boot\] (.*?)\r?$", text, re.MULTILINE)


@pytest.mark.parametrize("options", [
    {"memory": 64, "disk": False, "net": False},
    {"memory": 4096},
], ids=["small and bare", "large with disk and card"])
def test_start_reaches_the_prompt(machine, options):
    one = machine(prompt=False, **options)
    lines = boot_lines(one.wait_prompt())
    assert lines[0].startswith("Multiboot OK, info at 0x")
    steps = ["GDT", "IDT", "Interrupt controller", "PMM", "VMM", "Heap", "Causal event graph",
             "Replay engine", "Timeline framework", "PCI bus scanned", "TSS", "PS/2 keyboard",
             "Task manager", "RAM filesystem", "VirtIO block device",
             "VoFS persistent filesystem", "Timer", "VirtIO net ready (MAC 52:54:00:12:34:56)",
             "HW RNG", "Noise crypto", "System tasks", "Scheduler active"]
    for device, name in ("disk", "VirtIO block"), ("net", "VirtIO net"):
        assert any(line.startswith(name) for line in lines) == options.get(device, True)
    assert [line for line in lines[1:] if "WARNING" not in line] == [
        line for step in steps for line in lines if line.startswith(step)]
    assert one.run("heap selftest").startswith("heap aligned self-test: PASS")
    assert one.run("crypto").endswith("crypto selftest: PASS\n")


@pytest.mark.parametrize("sectors", [1000, 8388608 + 7], ids=["1000 sectors", "over 4 GiB"])
def test_the_disk_is_found_with_its_size_and_boots_again(machine, sectors):
    disk = Disk(size=512 * sectors)
    for _ in range(2):
        one = machine(prompt=False, disk=disk)
        text = one.wait_prompt()
        count = int(re.search(r"PCI bus scanned \((\d+) devices found\)", text).group(1))
        found = re.findall(r"^  PCI 00:\w\w\.\w  (\w{4}:\w{4})  class \w\w:\w\w\r$", text,
                           re.MULTILINE)
        assert len(found) == count and {"1af4:1001", "1af4:1000"} < set(found)
        assert (f"[virtio-blk] capacity: {sectors} sectors ({sectors // 2048} MB)\r\n"
                f"[boot] VirtIO block device ready ({sectors // 2048} MB)\r\n") in text
        one.close()


def test_too_little_memory_stops_with_a_line(machine):
    one = machine(prompt=False, memory=48, disk=False, net=False)
    one.wait_for(re.compile(r"\[heap\] ERROR: not enough memory for the 48 MB heap"))
    assert "Heap initialized" not in one.transcript + one.read_for(0.5)


def test_an_unknown_loader_gets_the_banner_and_an_error_only(machine):
    one = machine(prompt=False, image=ROOT / "build" / "vorn-wrong-loader.elf")
    one.wait_for("ERROR: Not booted by a Multiboot loader (magic=0xbad10ad)")
    one.read_for(0.5)
    assert "Vorn 0.1.0 — " in one.transcript
    assert boot_lines(one.transcript) == []


def test_without_random_instructions_there_is_one_warning(machine):
    one = machine(prompt=False, args=["-cpu", "qemu32"], disk=False, net=False)
    warnings = re.findall(r"WARNING:", one.wait_prompt())
    assert len(warnings) == 1
    words = one.run("random 64").split()[2:]
    assert len(words) == 64 and len(set(words)) > 60


def test_a_quiet_system_records_next_to_nothing(machine):
    one = machine(disk=False, net=False)

    def events():
        return int(re.search(r"Causal Graph: (\d+) events", one.run("graph")).group(1))

    before = events()
    one.read_for(5)
    asking = len("graph") + 3  # a wake-up a key at most, the command line's end among them
    assert events() - before < asking + 5
