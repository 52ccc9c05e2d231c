"""Timelines, mail, notes and the snapshot of events as a user has them, over two boots and without
a disk."""
import re
import struct


def chain(text):
    """Sub-types and descriptions of a listing."""
    return re.findall(r"\[\d+\] T\+\d+ (\w+) +(.*)", text)


def use_and_save(one):
    """What a user does in the first boot, up to an orderly end."""
    assert one.run("mail read 2").endswith("\n\nFirst mail in Vorn!\n")
    assert re.fullmatch(r"  \[1\] T\+\d+ Hello from Vorn boot\n", one.run("note"))
    assert re.fullmatch(r"Created timeline \d+: work \(app\)\n", one.run("tl create work app"))
    for n in range(11):
        one.run(f"tl emit work step {n}")
    one.run("tl mark work half way")
    assert one.run("tl rewind work -5").startswith("Rewound to T+")
    assert one.run("tl save work") == one.run("tl save shell/0") == "Saved\n"
    one.run("note add keep me")
    assert one.run("note save") == "Notes saved\n"
    # A command is the cause of what it does, although the system's timeline notes it in between.
    one.run("diskwrite /cause.txt x")
    created = re.search(r"\[(\d+)\][^\n]*create /cause.txt", one.run("events 30")).group(1)
    assert re.search(r"\n  \[\d+\][^\n]* cmd: diskwrite ", one.run(f"trace {created}"))
    assert re.match(r"flushed \d+ events to /causal/journal.bin\n", one.run("cflush"))
    assert "Tasks: " in one.run("replay 60") and "Total events: +" in one.run("replay 10 60")
    assert "shell" in one.run("proc") and "proc: no task 99" in one.run("proc 99")
    one.qmp.run("system_powerdown")
    assert re.search(r"\[shutdown\] Flushed \d+ causal events to disk\r\n", one.wait_end())


def test_a_timeline_is_made_travelled_saved_and_had_back(machine):
    first = machine()
    use_and_save(first)
    first.close()
    one = machine(prompt=False, disk=first.disk)
    assert re.search(r"\[cpersist\] restored \d+ events from disk\r\n\[boot\] Timer",
                     one.wait_prompt())
    assert re.fullmatch(r"Restored timeline \d+: work\n", one.run("tl load work"))
    assert chain(one.run("tl show work")) == [
        ("create", "timeline created"), *(("data", f"step {n}") for n in range(11)),
        ("mark", "mark: half way")]
    assert one.run("note load") == "Notes loaded\n" and "keep me" in one.run("note")
    one.run("tl delete shell/0")
    assert one.run("tl load shell/0").startswith("Restored timeline ")
    assert ("unknown", "cmd") in chain(one.run("tl show shell/0"))
    assert one.run("fsck").endswith("sound\n")
    one.close()

    # A header that lies is refused.
    content = one.disk.read(0, one.disk.size)
    at = content.index(struct.pack("<4sIII32s", b"2PLT", 2, 13, 2, b"work"))
    one.disk.write(at + 8, struct.pack("<I", 0xFFFFFFFF))
    assert machine(disk=one.disk).run("tl load work") == "Restore failed\n"


def test_without_a_disk_only_saving_fails(machine):
    one = machine(disk=False, net=False)
    assert "[cpersist]" not in one.transcript
    assert one.run("tl save shell/0") == "Save failed\n"
    assert one.run("note add a") == "Note 2 added\n"
    assert one.run("cflush") == "flush failed (no block filesystem?)\n"
    assert one.run("crestore") == "restore failed\n"
    assert one.run("tl export shell/0 /docs/x") == "Export failed: no disk\n"
    one.run("tl export shell/0 /tmp/x")
    assert "shell: timeline created\n" in one.run("cat /tmp/x")
