"""The cryptography as the image links it: no branch and no address depends on a secret, the stack
stays shallow, and no secrets are left on it."""
import subprocess

from rig import ROOT

PROGRAM = ROOT / "build" / "kernel" / "constant_time"
STACK_LIMIT = 8 * 1024  # a quarter of a kernel task's
# Addresses and lengths; a field element that stayed would be 40 more.
RESIDUE_LIMIT = 128


def valgrind(*args):
    return subprocess.run(["valgrind", "-q", PROGRAM, *args], capture_output=True, text=True,
                          timeout=120, check=False)


def test_no_branch_or_address_depends_on_a_secret():
    run = valgrind()
    assert run.returncode == 0, run.stdout + run.stderr
    assert valgrind("leaky").returncode == 1, "the check itself sees nothing"


def test_the_stack_is_shallow_and_left_without_secrets():
    lines = subprocess.run([PROGRAM, "stack"], capture_output=True, text=True, timeout=60,
                           check=True).stdout.split("\n")
    figures = {name: (int(depth), int(residue))
               for name, depth, residue in (line.split() for line in lines if line)}
    assert len(figures) == 9
    for name, (depth, residue) in figures.items():
        assert depth < STACK_LIMIT, name
        # The AEAD leaves what it sent: ciphertext.
        assert residue < RESIDUE_LIMIT or name.startswith("aead"), name
