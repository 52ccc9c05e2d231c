"""An independent reader and judge of journals: it shares no code with the kernel and the host
tools, and knows only the formats that docs/formats describes. The tests hold ours against it.

judge(files) gives 0 (sound and signed), 1 (bad) or 4 (sound as far as it can be told, but not all
signed), which are the auditor's exit codes.
"""
import collections
import functools
import hashlib
import re
import struct

from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives.asymmetric.ed25519 import (Ed25519PrivateKey,
                                                               Ed25519PublicKey)
from cryptography.hazmat.primitives.serialization import Encoding, PublicFormat

SECTOR = 512
SOUND, BAD, UNSEALED = 0, 1, 4

SUPER = struct.Struct("<8I")
INODE = struct.Struct("<2I12II64s5I")
HEADER = struct.Struct("<5I2Q2I")
RECORD = struct.Struct("<IIQIB16s80s4IBHI32sHB")
FOOTER = struct.Struct("<12I")
SIDECAR = struct.Struct("<6I")
ROOT = struct.Struct("<7I32s")
assert (HEADER.size, RECORD.size, FOOTER.size, SIDECAR.size, ROOT.size) == (44, 175, 48, 24, 60)


# --- The volume -----------------------------------------------------------------------------------
def place_files(image):
    """The sectors and the size of each file of a volume, by path."""
    def pointers(block):
        return struct.unpack_from("<128I", image, block * SECTOR) if block else (0,) * 128

    magic, _, _, count, start = SUPER.unpack_from(image)[:5]
    assert magic == 0x564F4653, "no volume"
    inodes = [INODE.unpack_from(image, (start + n) * SECTOR) for n in range(count)]
    names = [fields[15].split(b"\0")[0].decode("latin-1") for fields in inodes]

    def path(n):
        return "" if n == 0 else f"{path(inodes[n][14])}/{names[n]}"

    places = {}
    for n, fields in enumerate(inodes):
        if fields[0] != 1:
            continue
        blocks = list(fields[2:14]) + list(pointers(fields[16]))
        for leaf in pointers(fields[20]):
            if len(blocks) * SECTOR < fields[1]:
                blocks += pointers(leaf)
        places[path(n)] = blocks[:-(-fields[1] // SECTOR)], fields[1]
    return places


def read_volume(image):
    """All files of a volume, by path, read from the bytes of its image."""
    return {path: b"".join(bytes(image[n * SECTOR:(n + 1) * SECTOR]) for n in blocks)[:size]
            for path, (blocks, size) in place_files(image).items()}


def make_volume(files, sectors=400):
    """An image that holds `files` in the one folder "/causal"."""
    data_start = 258
    image = bytearray(sectors * SECTOR)
    SUPER.pack_into(image, 0, 0x564F4653, 1, sectors, 256, 2, data_start, 1, 1)
    free = data_start
    entries = [(2, 0, b"/", ()), (2, 0, b"causal", ())]
    for path, data in files.items():
        blocks = list(range(free, free + -(-len(data) // SECTOR)))
        entries.append((1, 1, path.removeprefix("/causal/").encode(), blocks))
        image[free * SECTOR:free * SECTOR + len(data)] = data
        free += len(blocks) + 1
        struct.pack_into(f"<{len(blocks[12:])}I", image, (free - 1) * SECTOR, *blocks[12:])
    for n, (kind, parent, name, blocks) in enumerate(entries):
        indirect = blocks[-1] + 1 if len(blocks) > 12 else 0
        size = len(files.get(f"/causal/{name.decode()}", b""))
        INODE.pack_into(image, (2 + n) * SECTOR, kind, size,
                        *[*blocks[:12], *[0] * 12][:12], parent, name, indirect, 0, 0, 0, 0)
    assert free <= sectors
    return image


# --- Hashes ---------------------------------------------------------------------------------------
def checksum(data):
    value = 0x811C9DC5
    for byte in data:
        value = (value ^ byte) * 0x01000193 & 0xFFFFFFFF
    return value or 1


def blake2s(data):
    return hashlib.blake2s(data).digest()


def event_hash(record, version=4):
    """The hash of a record in the current layout."""
    (number, node, lamport, ticks, kind, subsystem, desc, p0, p1, p2, p3, parents, _, size, payload,
     schema, schema_version) = RECORD.unpack(record)
    named = [p if i < min(parents, 4) else 0 for i, p in enumerate((p0, p1, p2, p3))]
    text = struct.pack("<IIIQII4I", number, node, kind, lamport, ticks, parents, *named)
    text += subsystem + desc
    if version >= 2:
        text = struct.pack("<II", 0x48455643, version) + text
    if version >= 3:
        text += struct.pack("<I", size) + payload
    if version >= 4:
        text += struct.pack("<II", schema, schema_version)
    return blake2s(text)


def merkle_root(level):
    while len(level) > 1:
        level = [blake2s(level[i] + level[min(i + 1, len(level) - 1)])
                 for i in range(0, len(level), 2)]
    return level[0] if level else bytes(32)


# --- Making ---------------------------------------------------------------------------------------
def make_record(number, lamport, ticks, desc=b"thing", subsystem=b"test", kind=9, parents=(),
                node=0, children=0, size=0, payload=bytes(32), schema=(0, 1)):
    padded = [*parents, 0, 0, 0, 0][:4]
    return RECORD.pack(number, node, lamport, ticks, kind, subsystem, desc, *padded, len(parents),
                       children, size, payload, *schema)


def make_segment(number, records, previous=0, flags=0):
    """The segment, sidecar and root files of `records` in the current layout."""
    fields = [RECORD.unpack(record) for record in records]
    first, last = fields[0][0], fields[-1][0]
    ticks = [record[3] for record in fields]
    body = HEADER.pack(0x434A4E4C, 1, len(records), first, last, fields[0][2], fields[-1][2],
                       min(ticks), max(ticks)) + b"".join(records)
    body += FOOTER.pack(0x54464A43, 5, number, len(records), first, last, checksum(body), 44, 175,
                        48, previous, flags)
    hashes = [event_hash(record) for record in records]
    sidecar = SIDECAR.pack(0x48534A43, 4, number, len(records), first, last) + b"".join(hashes)
    root = ROOT.pack(0x52544A43, 1, number, len(records), first, last, 4, merkle_root(hashes))
    return body, sidecar, root


def make_journal(runs, seed):
    """The files of a signed journal with one segment for each list of records in `runs`; what
    stands in a tuple was imported. An empty one is a number without a segment."""
    key = Ed25519PrivateKey.from_private_bytes(seed)
    files, previous = {"/causal/node-sign.key": seed}, 0
    for number, records in enumerate(runs, 1):
        if not records:
            continue
        name = f"/causal/seg-{number:08d}"
        segment, sidecar, root = make_segment(number, records, previous, isinstance(records, tuple))
        files |= {name + ".jnl": segment, name + ".hsh": sidecar, name + ".ert": root,
                  name + ".sig": key.sign(root[28:])}
        previous = checksum(segment[:-FOOTER.size])
    return files


# --- Judging --------------------------------------------------------------------------------------
class Damage(Exception):
    """What is wrong with a segment."""


def require(condition, what):
    if not condition:
        raise Damage(what)


def padded_text(field):
    text, _, rest = field.partition(b"\0")
    return len(text) < len(field) and not rest.strip(b"\0")


def check_record(fields):
    (_, _, _, _, kind, subsystem, desc, *parents, count, _, size, payload, _, version) = fields
    require(kind <= 9, "type")
    require(padded_text(subsystem) and padded_text(desc), "text not in canonical form")
    require(count <= 4 and not any(parents[count:]), "parents")
    require(size <= 420 and (size != 0 or payload == bytes(32)), "payload")
    require(version != 0, "schema")


Segment = collections.namedtuple("Segment", "number ids hashes said is_live checksum previous root")


@functools.lru_cache(4096)
def check_segment(number, data, sidecar, root):
    """What a sound segment says."""
    require(len(data) >= HEADER.size + RECORD.size + FOOTER.size, "size")
    magic, version, count, first, last, lamport_a, lamport_b, tick_a, tick_b = \
        HEADER.unpack_from(data)
    require((magic, version) == (0x434A4E4C, 1) and 1 <= count <= 512, "header")
    require(len(data) == HEADER.size + count * RECORD.size + FOOTER.size, "size")
    body = data[:-FOOTER.size]
    (footer_magic, footer_version, own, footer_count, footer_first, footer_last, stored, *sizes,
     previous, flags) = FOOTER.unpack(data[-FOOTER.size:])
    require((footer_magic, footer_version, own) == (0x54464A43, 5, number), "footer")
    require((footer_count, footer_first, footer_last) == (count, first, last), "footer")
    require(sizes == [44, 175, 48] and flags in (0, 1), "footer")
    require(number != 1 or previous == 0, "chain")
    require(stored == checksum(body), "checksum")

    records = [body[44 + i * 175:44 + (i + 1) * 175] for i in range(count)]
    fields = [RECORD.unpack(record) for record in records]
    ids = [record[0] for record in fields]
    require(ids[0] == first and ids[-1] == last, "ids")
    require(all(a < b for a, b in zip(ids, ids[1:])) and ids[0] != 0, "order")
    ticks, lamports = [f[3] for f in fields], [f[2] for f in fields]
    require((tick_a, tick_b) == (min(ticks), max(ticks)), "ticks")
    require((lamport_a, lamport_b) == (lamports[0], lamports[-1]), "lamport")
    require(all(lamport_a <= l <= lamport_b for l in lamports), "lamport")
    for record in fields:
        check_record(record)
        require(flags == 0 or (record[12], record[13]) == (0, 0), "imported")

    hashes = [event_hash(record) for record in records]
    head = (number, count, first, last)
    require(sidecar is not None and root is not None, "companion missing")
    require(sidecar == SIDECAR.pack(0x48534A43, 4, *head) + b"".join(hashes), "sidecar")
    require(root == ROOT.pack(0x52544A43, 1, *head, 4, merkle_root(hashes)), "root")
    said = [f[6].split(b"\0")[0].decode("latin-1") for f in fields
            if f[5].split(b"\0")[0] == b"cjournal"]
    return Segment(number, ids, hashes, said, flags == 0, stored, previous, root[28:])


def is_signed(signature, root, key):
    if signature is None or len(signature) != 64:
        return False
    require(key is not None, "a signature without a key")
    try:
        key.verify(signature, root)
    except InvalidSignature:
        raise Damage("signature") from None
    return True


def judge(files, public=None):
    """The verdict on the journal among `files`; `public` stands in for the key file's own half."""
    if public is None and len(files.get("/causal/node-sign.key", b"")) == 32:
        seed = Ed25519PrivateKey.from_private_bytes(files["/causal/node-sign.key"])
        public = seed.public_key().public_bytes(Encoding.Raw, PublicFormat.Raw)
    key = Ed25519PublicKey.from_public_bytes(public) if public else None
    numbers = sorted(int(found.group(1)) for path in files
                     if (found := re.fullmatch(r"/causal/seg-(\d{8})\.jnl", path)))
    row, unsigned = [], not numbers
    try:
        for number in numbers:
            name = f"/causal/seg-{number:08d}"
            parts = [files.get(name + ending) for ending in (".jnl", ".hsh", ".ert", ".sig")]
            row.append(check_segment(number, *parts[:3]))
            unsigned = not is_signed(parts[3], row[-1].root, key) or unsigned
        check_row(row)
        check_index(files.get("/causal/index.jix", b""), numbers)
    except Damage:
        return BAD
    return UNSEALED if unsigned else SOUND


def check_row(row):
    """The segments belong together: numbers, chain and identifiers go on from one to the next, but
    where the journal itself says what was lost and what was evicted."""
    said = [text for one in row for text in one.said]
    lost = [tuple(map(int, m.groups())) for t in said if (m := re.match(r"lost (\d+)\.\.(\d+)", t))]
    gone = {int(m.group(1)) for t in said if (m := re.match(r"evict (\d+) ", t))}
    single = {one.ids[0]: one.hashes[0] for one in row if one.is_live and len(one.ids) == 1}
    alone = set()  # so far

    def require_lost(first, end):
        """Events from `first` on, before `end`, are alone elsewhere or named."""
        edges = [first - 1, *sorted(n for n in alone if first <= n < end), end]
        for before, after in zip(edges, edges[1:]):
            for a, b in sorted(lost):
                before = b if a <= before + 1 <= b else before
            require(before + 1 >= after, "missing events")

    begun = False  # the regular row; before it, single ones may stand
    starts, front, last = set(), 1 if row and row[0].number == 1 else None, None
    for one in row:
        if last and one.number != last.number + 1:
            require(not begun or gone.issuperset(range(last.number + 1, one.number)), "missing")
            front = None
        elif last:
            require(one.previous == last.checksum, "chain")
        last = one
        if not one.is_live:
            continue
        first, end = one.ids[0], one.ids[-1] + 1
        for a, b in zip(one.ids, one.ids[1:]):
            require_lost(a + 1, b)
        alone |= {first} if len(one.ids) == 1 else set()
        if len(one.ids) == 1 and not begun:
            front = end if front in (None, first) else front
        elif len(one.ids) == 1:
            starts |= {end} if first in starts else set()
        else:
            if first not in starts if begun else front and first > front:
                require(not begun or first >= max(starts), "events come again")
                require_lost(max(starts) if begun else front, first)
            begun, starts = True, {end}
    for one in row:
        for number, digest in zip(one.ids, one.hashes):
            require(not one.is_live or single.get(number, digest) == digest, "twins differ")


def check_index(index, numbers):
    """An index that speaks of newer segments than there are gives a cut tail away."""
    if len(index) < 24:
        return
    magic, version, count = struct.unpack_from("<3I", index)
    if (magic, version) == (0x584A4943, 6) and count <= 32 and len(index) == 24 + 80 * count:
        named = [struct.unpack_from("<I", index, 24 + 80 * i)[0] for i in range(count)]
        require(max(named, default=0) <= max(numbers, default=0), "the tail was removed")
