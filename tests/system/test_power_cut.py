"""Power cuts on a real machine: its sector writes are logged, and every prefix of the log is a disk
as a cut would have left it."""
import random
import subprocess

import journal_oracle as oracle
import write_log
from rig import ROOT, Disk

SECTORS = 1000
BOOTED = 3    # cut disks that start again
CHECKED = 40  # and that the host's checker looks at
COMMANDS = [
    "diskwrite /keep.txt never touched again", "diskmkdir /d", 'diskfill /d/big 80K "one two "',
    "diskfill /edge 6K", "diskappend /edge more", "disktruncate /d/big 71K", "diskmv /d/big /moved",
    "diskcp /moved /d/copy", "diskwrite /edge short", "diskrm -r /d", "diskrm /moved",
]


RECORD_EVENTS = 'vorsh -c "set i 0; while $i < 250; pwd; expr i $i + 1; end"'
JOURNAL_COMMANDS = [
    RECORD_EVENTS, "journal spill 1", "journal spill 512", "journal sign-all", "journal spill 513",
    "journal spill-through last", "cflush", "journal retention set segments 3", "journal spill 20",
    "journal retention set segments 1", "journal spill 20", "journal sign-all", "journal rebuild",
]


def run_commands(machine, folder, commands):
    """The log of a machine's sector writes, and how many there were after each command."""
    image, log = folder / "disk.img", folder / "writes.log"
    with open(image, "wb") as disk:
        disk.truncate(SECTORS * write_log.SECTOR)
    one = machine(disk=False, net=False, args=write_log.drive(image, log))
    marks = [len(write_log.read_log(log))]
    for command in commands:
        text = one.run(command)
        assert "failed" not in text.replace("failed=0", ""), (command, text)
        marks.append(len(write_log.read_log(log)))
    one.close()
    return write_log.read_log(log), marks


def states_at(writes, marks):
    """The files after each command."""
    wanted, states = set(marks), []
    for number, image in write_log.prefixes(bytes(SECTORS * write_log.SECTOR), writes):
        if number in wanted:
            states += [oracle.read_volume(image)] * marks.count(number)
    return states


def check_files(files, before, after):
    """What the command did not change is as it was; what it changed is whole or cut, not mixed."""
    for path in before.keys() | after.keys():
        old, new = before.get(path), after.get(path)
        found = files.get(path)
        if old == new:
            assert found == old, path
        elif found is not None:
            assert any(whole is not None and whole.startswith(found) for whole in (old, new)), path


def tool(name, *words):
    return subprocess.run([ROOT / "build" / "tools" / name, *words], capture_output=True,
                          text=True, timeout=60, check=False)


def repair_on_host(image):
    for words in (["fsck", "repair"], ["fsck"]):
        done = tool("vorn-disk", image, *words)
        assert done.returncode == 0, done


def test_a_cut_at_any_write_leaves_a_volume_with_all_that_was_not_being_changed(machine, tmp_path):
    writes, marks = run_commands(machine, tmp_path, COMMANDS)
    states = states_at(writes, marks)
    assert len(writes) > 600 and states[3]["/d/big"][:6] == b"one tw"
    seed = random.randrange(1 << 32)
    print("seed", seed)
    numbers = range(marks[0], len(writes))
    checked = random.Random(seed).sample(numbers, CHECKED)
    for number, image in write_log.prefixes(bytes(SECTORS * write_log.SECTOR), writes):
        if number < marks[0]:
            continue
        command = next((i for i, mark in enumerate(marks) if mark >= number), len(marks) - 1)
        check_files(oracle.read_volume(image), states[max(command - 1, 0)], states[command])
        if number not in checked:
            continue
        cut = tmp_path / "cut.img"
        cut.write_bytes(image)
        if number in checked[:BOOTED]:
            one = machine(disk=Disk(size=SECTORS * write_log.SECTOR, path=cut), net=False)
            assert "ERROR" not in one.transcript + one.run("fsck")
            one.close()
        repair_on_host(cut)
        check_files(oracle.read_volume(cut.read_bytes()), states[max(command - 1, 0)],
                    states[command])


def test_a_cut_at_any_write_leaves_a_journal_that_is_sound(machine, tmp_path):
    writes, marks = run_commands(machine, tmp_path, JOURNAL_COMMANDS)
    seed = random.randrange(1 << 32)
    print("seed", seed)
    chance, cut = random.Random(seed), tmp_path / "cut.img"
    audited = set(chance.sample(range(len(writes)), CHECKED))
    booted = {chance.randrange(first, last) for first, last in
              ((0, marks[0]), (marks[1], marks[5]), (marks[6], len(writes)))}
    for number, image in write_log.prefixes(bytes(SECTORS * write_log.SECTOR), writes):
        formatted = image[:4] == b"SFOV"
        verdict = oracle.judge(oracle.read_volume(image)) if formatted else None
        assert verdict != oracle.BAD, number
        cut.write_bytes(image) if number in audited | booted else None
        if number in audited:
            assert tool("vorn-audit", cut).returncode in (3, verdict), number
        if number in booted:
            one = machine(disk=Disk(size=SECTORS * write_log.SECTOR, path=cut), net=False)
            assert one.run("journal verify").endswith("journal verify: ok\n"), number
            one.run("journal spill 1000")
            one.run("journal sign-all")
            one.close()
            assert oracle.judge(oracle.read_volume(cut.read_bytes())) == oracle.SOUND, number
