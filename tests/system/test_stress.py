"""The kernel's own structures under preemption between any two instructions."""
import pytest
from rig import ROOT

STRESS_IMAGE = ROOT / "build" / "vorn-stress.elf"
LIMIT = 120  # seconds; a sound run takes some ten on a quiet machine


@pytest.mark.parametrize("disk", [False, True])
def test_kernel_structures_survive_preemption_at_any_instruction(machine, disk):
    """Heap, queues, events, keys, files, console, log, actors, timelines; with a disk the volume
    and the journal, too. The seed is in the transcript."""
    one = machine(prompt=False, image=STRESS_IMAGE, disk=disk, net=False)
    one.wait_end(LIMIT)
    assert "STRESS PASS" in one.transcript, one.transcript[-500:]
    assert not disk or "verify: ok (" in one.transcript
