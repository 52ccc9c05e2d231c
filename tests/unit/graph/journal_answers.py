#!/usr/bin/env python3
"""Computes the known answers of the journal's format tests with hashlib and struct, through the
independent reader of tests/system. Prints the table of journal_vectors.h."""
import hashlib
import pathlib
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


def main():
    for count in (1, 3, 512):
        files = oracle.make_segment(40 + count, [record(i) for i in range(count)], 0xDEADBEEF,
                                    count % 2)
        print(f"    {{{count}," + ",\n     ".join(f'"{digest(data)}"' for data in files) + "},")
    for version in (1, 2, 3, 4):
        hashes = b"".join(oracle.event_hash(record(i), version) for i in range(20))
        print(f'    "{digest(hashes)}",')


main()
