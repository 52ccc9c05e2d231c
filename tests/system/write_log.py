"""The sector writes that a machine made, in their order, as QEMU's blklogwrites driver logs them
(the format of the Linux kernel's dm-log-writes): the disk as any power cut would have left it."""
import struct

SECTOR = 512
SUPER = struct.Struct("<QQQI")
ENTRY = struct.Struct("<QQQQ")
MAGIC = 0x6A736677736872
WITHOUT_DATA = 4 | 8  # discards and marks


def read_log(path):
    """The writes as (sector, bytes), each split into single sectors."""
    with open(path, "rb") as log:
        data = log.read()
    magic, _, count, size = SUPER.unpack_from(data)
    assert magic == MAGIC and size == SECTOR, "no log of writes"
    writes, at = [], SECTOR
    for _ in range(count):
        sector, sectors, flags, _ = ENTRY.unpack_from(data, at)
        at += SECTOR
        if flags & WITHOUT_DATA:
            continue
        for n in range(sectors):
            writes.append((sector + n, data[at + n * SECTOR:at + (n + 1) * SECTOR]))
        at += sectors * SECTOR
    return writes


def drive(image, log):
    """QEMU's arguments for a disk `image` whose writes go to `log` as well."""
    with open(log, "wb"):
        pass
    return ["-blockdev", f"driver=blklogwrites,node-name=disk0,file.driver=file,"
                         f"file.filename={image},log.driver=file,log.filename={log}",
            "-device", "virtio-blk-pci,drive=disk0,disable-modern=on"]


def prefixes(before, writes):
    """The disk after each write: yields the number of writes and the image, which is reused."""
    image = bytearray(before)
    yield 0, image
    for number, (sector, data) in enumerate(writes, 1):
        image[sector * SECTOR:(sector + 1) * SECTOR] = data
        yield number, image
