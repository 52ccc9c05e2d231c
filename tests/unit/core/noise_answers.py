#!/usr/bin/env python3
"""Computes the known answers of the noise tests with hashlib and python3-cryptography.

Each answer is one BLAKE2s-256 over the outputs for many inputs, which both sides make the same way.
"""
import hashlib

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric.ed25519 import Ed25519PrivateKey
from cryptography.hazmat.primitives.asymmetric.x25519 import X25519PrivateKey, X25519PublicKey
from cryptography.hazmat.primitives.ciphers.aead import ChaCha20Poly1305
from cryptography.hazmat.primitives.poly1305 import Poly1305

MAC_KEYS = [b"\xff" * 32, b"\x02" + bytes(31), b"\x02" + bytes(15) + b"\xff" * 16]
EDGE_BYTES = [b"\x00", b"\x02", b"\xfb", b"\xfd", b"\xff"]


def pattern(seed, length):
    return bytes((seed * 31 + i * (2 * seed + 7) + (i >> 8)) & 0xFF for i in range(length))


def raw(key):
    return key.public_bytes(serialization.Encoding.Raw, serialization.PublicFormat.Raw)


def over(outputs):
    return hashlib.blake2s(b"".join(outputs)).hexdigest()


def macs():
    for n in range(200):
        yield Poly1305.generate_tag(pattern(n, 32), pattern(n + 1, n))
    for key in MAC_KEYS:
        for first in EDGE_BYTES:
            for n in (1, 15, 16, 17, 48):
                yield Poly1305.generate_tag(key, first + b"\xff" * (n - 1))


def sealed():
    for n in list(range(150)) + [4064, 4080, 4081, 5000]:
        yield ChaCha20Poly1305(pattern(n, 32)).encrypt(
            pattern(n + 2, 12), pattern(n + 1, n), pattern(n + 3, n * 7 % 40))


def shared():
    points = [pattern(n, 32) for n in range(1, 60)] + [b"\xff" * 32, b"\xf0" + b"\xff" * 31]
    for n, point in enumerate(points):
        private = X25519PrivateKey.from_private_bytes(pattern(n + 100, 32))
        yield private.exchange(X25519PublicKey.from_public_bytes(point)) + raw(private.public_key())


def signed():
    for n in list(range(100)) + [65536]:
        private = Ed25519PrivateKey.from_private_bytes(pattern(n & 0xFF, 32))
        yield raw(private.public_key()) + private.sign(pattern(n & 0xFF, n))


print("blake2s", over(hashlib.blake2s(pattern(n, n)).digest() for n in range(300)))
print("sha512", over(hashlib.sha512(pattern(n, n)).digest() for n in range(300)))
print("poly1305", over(macs()))
print("aead", over(sealed()))
print("x25519", over(shared()))
print("ed25519", over(signed()))
