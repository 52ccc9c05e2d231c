#!/usr/bin/env python3
"""Writes kernel/core/noise/ed25519_table.inc: multiples of the Ed25519 base point B.

Row r holds j * 16^(8r) * B for j = 1..8, each as y + x, y - x and 2dxy modulo 2^255 - 19, in
32-bit words, little end first.
"""
import sys

P = 2**255 - 19
D = -121665 * pow(121666, -1, P) % P
ROWS, MULTIPLES, DIGITS_PER_ROW = 8, 8, 8


def base_point():
    y = 4 * pow(5, -1, P) % P
    xx = (y * y - 1) * pow(D * y * y + 1, -1, P) % P
    x = pow(xx, (P + 3) // 8, P)
    if x * x % P != xx:
        x = x * pow(2, (P - 1) // 4, P) % P
    return (x if x % 2 == 0 else P - x), y


def add(a, b):
    (x1, y1), (x2, y2) = a, b
    t = D * x1 * x2 * y1 * y2 % P
    x3 = (x1 * y2 + y1 * x2) * pow(1 + t, -1, P) % P
    y3 = (y1 * y2 + x1 * x2) * pow(1 - t, -1, P) % P
    return x3, y3


def words(value):
    value %= P
    text = ", ".join(f"0x{value >> 32 * i & 0xFFFFFFFF:08x}" for i in range(8))
    return f"     {{{text}}},\n"


def main():
    first = base_point()
    for _ in range(ROWS):
        sys.stdout.write("{\n")
        point = first
        for _ in range(MULTIPLES):
            x, y = point
            entry = words(y + x) + words(y - x) + words(2 * D * x * y)
            sys.stdout.write("    {\n" + entry + "    },\n")
            point = add(point, first)
        sys.stdout.write("},\n")
        for _ in range(4 * DIGITS_PER_ROW):
            first = add(first, first)


main()
