"""The kernel's own structures under preemption between any two instructions."""
from rig import ROOT

STRESS_IMAGE = ROOT / "build" / "vorn-stress.elf"
LIMIT = 120  # seconds; a sound run takes some ten on a quiet machine


def test_kernel_structures_survive_preemption_at_any_instruction(machine):
    """Heap, run queues, event ring, keys, files, console and log; the seed is in the transcript."""
    one = machine(prompt=False, image=STRESS_IMAGE, disk=False, net=False)
    one.wait_end(LIMIT)
    assert "STRESS PASS" in one.transcript, one.transcript[-500:]
