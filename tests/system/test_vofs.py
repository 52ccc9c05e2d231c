"""The filesystem's volume on real disks: formatted once, mounted ever after, mended when it is
hurt. What stands on the disk is read here from its bytes."""
import re
import struct

import pytest

from rig import Disk

SECTOR = 512
READY = "[boot] VoFS persistent filesystem mounted\r\n"


def vofs_lines(text):
    return [line.rstrip() for line in text.split("\n") if line.startswith(("[vofs]", "[fsck]"))]


def figures(line):
    """Inodes, blocks referenced and blocks marked, as a check counts them."""
    return [int(n) for n in re.fullmatch(
        r"\[fsck\] (\d+) inodes, (\d+) blocks used, (\d+) blocks in bitmap", line).groups()]


def boot(machine, disk):
    """The volume's lines of one start, up to the first prompt."""
    one = machine(prompt=False, disk=disk)
    text = one.wait_prompt()
    one.close()
    assert (READY in text) == (READY in text.split("[boot] Timer")[0])
    return vofs_lines(text), READY in text


@pytest.mark.parametrize("size, used, data", [
    (1000, 1000, 258), (4355, 4354, 258), (131072, 131072, 289), (20971520, 8388608, 2305)])
def test_a_disk_is_formatted_once(machine, size, used, data):
    disk = Disk(size=SECTOR * size)
    lines, ready = boot(machine, disk)
    note = [f"[vofs] format: device has {size} sectors; using first {used} sectors"]
    mounted = f"[vofs] Mounted: {used} sectors, 256 inodes"
    assert ready and lines == [
        "[vofs] No filesystem found — formatting", *(note if size > 8388608 else []),
        f"[vofs] Formatted: {used} sectors, 256 inodes, data@{data}", mounted]
    bitmap = data - 257
    assert disk.read(0, 36) == struct.pack("<4s8I", b"SFOV", 1, used, 256, bitmap + 1, data, 1,
                                           bitmap, 0)
    root = disk.read(SECTOR * (bitmap + 1), SECTOR)
    assert struct.unpack_from("<II", root) == (2, 0) and root[60:124] == b"/".ljust(64, b"\0")
    lines, ready = boot(machine, disk)
    assert ready and lines[0] == mounted and len(lines) == 2
    inodes, used, marked = figures(lines[1])
    assert inodes > 1 and used == marked


def test_a_disk_too_small_or_damaged_is_refused_and_the_machine_starts(machine):
    small = Disk(size=SECTOR * 258)
    lines, ready = boot(machine, small)
    assert not ready and lines[-1] == "[vofs] format: disk too small (258 sectors)"
    damaged = Disk()
    boot(machine, damaged)
    damaged.write(28, struct.pack("<I", 31))
    assert boot(machine, damaged) == (
        ["[vofs] invalid superblock geometry, refusing mount"], False)


def test_a_wrong_bitmap_is_repaired_at_the_next_start(machine):
    disk = Disk()
    boot(machine, disk)
    sound = disk.read(SECTOR, SECTOR)
    disk.write(SECTOR + 100, b"\x81")
    lines, ready = boot(machine, disk)
    _, used, marked = figures(lines[2])
    assert ready and marked == used + 2 and lines[1::2] == [
        f"[fsck] WARNING: bitmap has {marked} blocks, inodes reference {used}",
        f"[fsck] repaired bitmap from inode references ({used} blocks)"]
    assert disk.read(SECTOR, SECTOR) == sound
