"""The disk commands as a person types them, over several starts."""
import hashlib
import re
import threading

import pytest

from rig import Disk


def test_files_outlive_the_machine(machine):
    one = machine(net=False)
    for line in ('diskmkdir -p "/my docs/old"', 'diskcd "my docs"', 'diskwrite "a b" first line\\n',
                 'diskappend "a b" "second  line"', "diskfill big 8M", "diskcp big old",
                 "diskmv big old/same", "diskro old/same", 'diskmkdir -p "../my docs/./old/.."'):
        assert one.run(line) == "", line
    assert one.run("diskpwd") == "/my docs\n"
    assert one.run('diskcat "a b"') == "first line\nsecond  line\n"
    assert one.run("fsck").endswith("fsck: the volume is sound\n")
    one.send("halt\r")
    assert "Powering off Vorn..." in one.wait_end()
    one.close()

    two = machine(net=False, disk=one.disk)
    assert two.run("diskpwd") == "/\n"
    wanted = hashlib.blake2s((b"Vorn\n" * (2 << 20))[:8 << 20]).hexdigest()
    assert two.run('diskhash "/my docs/old/big"') == f"{wanted}  /my docs/old/big\n"
    two.run('diskcd "my docs/old"')
    assert two.run("diskcmp big same") == "big same are the same: 8388608 bytes\n"
    assert two.run("diskrm same") == "diskrm: same: read-only\n"
    assert two.run("disktree ..").endswith("1 directories, 3 files\n")
    two.run("diskrw same")
    assert two.run('diskrm -r "/my docs"') == ""
    assert two.run("fsck repair").endswith("fsck: the volume is sound\n")
    # What was done is in the graph, with the command as its cause.
    two.run("diskwrite /note x")
    created = r"\[(\d+)\] T\+\d+ fs_op vofs: create /note"
    number = re.search(created, two.run("events 20")).group(1)
    assert "cmd: diskwrite" in two.run(f"trace {number}")


@pytest.mark.parametrize("memory", [128, 1024])
def test_the_power_button_halts(machine, memory):
    """The tables lie at the end of memory: also where that is mapped no more."""
    one = machine(memory=memory, net=False)
    one.run("diskwrite /kept yes")
    one.qmp.run("system_powerdown")
    words = one.wait_end()
    assert words.startswith("[shutdown] Initiating halt...\r\n")
    assert "[shutdown] Flushed" in words and words.endswith("[shutdown] System halted\r\n")
    one.close()
    image = one.disk.path.read_bytes()
    assert image.count(b"shutdown type=halt") >= 2, "in the journal and in the snapshot"
    assert b"system.tl" in image
    two = machine(net=False, disk=one.disk)
    assert two.run("diskcat /kept") == "yes\n"


def test_ctrl_alt_del_restarts_also_while_the_disk_is_written(machine):
    one = machine(net=False, disk=Disk(cache="writeback"))
    threading.Timer(0.3, lambda: one.hold("ctrl+alt+delete")).start()
    one.send("diskfill /busy 8M\r")
    words = one.wait_end()
    assert words.count("[shutdown] Initiating reboot...") == 1
    assert words.endswith("[shutdown] System rebooting\r\n")
    one.close()
    two = machine(net=False, disk=one.disk)
    assert two.run("fsck").endswith("fsck: the volume is sound\n")


def test_a_machine_without_acpi_runs_and_has_no_button(machine):
    one = machine(net=False, disk=False, args=["-machine", "pc,acpi=off"])
    one.qmp.run("system_powerdown")
    assert one.run("echo still here") == "still here\n"
