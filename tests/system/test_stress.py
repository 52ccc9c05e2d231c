"""The kernel's own structures under preemption between any two instructions."""
import re

from rig import ROOT

STRESS_IMAGE = ROOT / "build" / "vorn-stress.elf"
VERDICT = re.compile(r"STRESS (PASS \d+ preemptions|FAIL.*)")
LIMIT = 120  # seconds; a sound run takes some ten on a quiet machine


def test_kernel_structures_survive_preemption_at_any_instruction(machine):
    """Heap, run queues, event ring, key ring, console and log; the seed is in the transcript."""
    one = machine(prompt=False, image=STRESS_IMAGE, disk=False, net=False)
    one.expect_end()
    one.wait_for(VERDICT, LIMIT)
    assert "STRESS PASS" in one.transcript
