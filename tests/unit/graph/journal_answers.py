#!/usr/bin/env python3
"""Computes the known answers of the journal's format tests with hashlib and struct, through the
independent reader of tests/system. Prints the tables of journal_vectors.h."""
import hashlib
import pathlib
import struct
import sys

sys.path.append(str(pathlib.Path(__file__).parents[2] / "system"))
import journal_oracle as oracle  # noqa: E402

FIRST_ID = 4_000_000_000


def record(i):
    number, size = FIRST_ID + i, i * 3 % 421 if i % 4 else 0
    payload = hashlib.blake2s(b"payload %d" % number).digest() if size else bytes(32)
    return oracle.make_record(
        number, 1000 + 3 * i, 50 + i * 7 % 13, b"event number %d" % number, b"sub%d" % (i % 7),
        i % 10, [number - 1 - j for j in range(i % 5)], 0xA0B0C0D0 + i, i % 3, size, payload,
        (i % 12, 1))


def digest(data):
    return hashlib.blake2s(data).hexdigest()


# Type, subsystem and description of the records in older layouts, and the schema they stand for.
OLD_TEXTS = ((9, b"vofs", b"create /x", 7), (2, b"disk", b"append 3", 6), (9, b"tcp", b"sent", 8),
             (9, b"tl", b"tick", 10), (6, b"task", b"recv name=a", 5), (0, b"cpu", b"exit 3", 3),
             (9, b"x", b"create", 0))
FOOTER_BYTES = (0, 24, 28, 40, 44, 48)


def old_record(number, i):
    """A record as it was, and as it is read back where its layout kept `kept` bytes."""
    kind, subsystem, desc, schema = OLD_TEXTS[i]
    payload = (7, hashlib.blake2s(b"payload").digest()) if i % 2 else (0, bytes(32))
    fields = (number, 500 + i, 90 + i, desc, subsystem, kind, (number - 1,), 0xBEEF, i)
    whole = oracle.make_record(*fields, *payload, (schema, 1))
    without_payload = oracle.make_record(*fields, schema=(schema, 1))
    return whole, {136: without_payload, 172: whole, 175: whole}


def old_segment(number, size, version, previous):
    """A segment with records of `size` bytes and a footer of `version` (0: none): its bytes, its
    checksum, and its records' hashes."""
    first, step = 1000 * number, 1 + number % 2
    records = [old_record(first + i * step, i) for i in range(len(OLD_TEXTS))]
    count, last = len(records), first + step * (len(records) - 1)
    body = oracle.HEADER.pack(0x434A4E4C, 1, count, first, last, 500, 499 + count, 90, 89 + count)
    body += b"".join(whole[:size] for whole, _ in records)
    total = oracle.checksum(body)
    footer = struct.pack("<12I", 0x54464A43, version, number, count, first, last, total, 44, size,
                         FOOTER_BYTES[version], previous, 0)[:FOOTER_BYTES[version]]
    return body + footer, total, b"".join(oracle.event_hash(back[size]) for _, back in records)


def print_old():
    number, previous = 0, 0
    for size in (136, 172, 175):
        for version in range(6):
            number += 1
            data, total, hashes = old_segment(number, size, version, previous)
            previous = total
            print(f'    {{{size}, {version}, "{digest(data)}",\n     "{digest(hashes)}"}},')


def main():
    for count in (1, 3, 512):
        files = oracle.make_segment(40 + count, [record(i) for i in range(count)], 0xDEADBEEF,
                                    count % 2)
        print(f"    {{{count}," + ",\n     ".join(f'"{digest(data)}"' for data in files) + "},")
    for version in (1, 2, 3, 4):
        hashes = b"".join(oracle.event_hash(record(i), version) for i in range(20))
        print(f'    "{digest(hashes)}",')
    print_old()


main()
