"""Timelines, mail, notes and the snapshot of events as a user has them, over two boots and without
a disk."""
import re
import struct


def chain(text):
    """Sub-types and descriptions of a listing."""
    return re.findall(r"\[\d+\] T\+\d+ (\w+) +(.*)", text)


def newest_id(one):
    return int(re.search(r"Causal Graph: (\d+) events", one.run("graph")).group(1))


def use_and_save(one):
    """What a user does in the first boot, up to an orderly end."""
    assert "  N [1] T+" in one.run("mail") and "admin -> admin: Welcome" in one.run("mail list")
    assert one.run("mail read 2").endswith("\n\nFirst mail in Vorn!\n")
    assert re.fullmatch(r"  \[1\] T\+\d+ Hello from Vorn boot\n", one.run("note"))
    assert one.run("tl create work app") == "Created timeline 4: work (app)\n"
    for n in range(24):
        assert one.run(f"tl emit work step {n}").startswith("Emitted event ")
    assert re.match(r"Marked work at event \d+: half way", one.run("tl mark work half way"))
    assert one.run("tl rewind work -5").startswith("Rewound to T+")
    assert "  > [" in one.run("tl show work")
    assert "live=26" in one.run("tl stats work") and "rewound" in one.run("tl stats work")
    assert one.run("tl save work") == one.run("tl save shell/0") == "Saved\n"
    assert one.run("tl payload-test").startswith("timeline payload-test: PASS")
    assert one.run("note add keep me") == "Note 2 added\n"
    assert one.run("note save") == "Notes saved\n"
    # A command is the cause of what it does, although the system's timeline notes it in between.
    one.run("diskwrite /cause.txt x")
    created = re.search(r"\[(\d+)\][^\n]*create /cause.txt", one.run("events 30")).group(1)
    assert re.search(r"\n  \[\d+\][^\n]* cmd: diskwrite ", one.run(f"trace {created}"))
    assert re.match(r"flushed \d+ events to /causal/journal.bin\n", one.run("cflush"))
    assert "Tasks: " in one.run("replay 60") and "Total events: +" in one.run("replay 10 60")
    assert one.run("replay soon") == "replay: invalid tick 'soon'\n"
    assert "shell" in one.run("proc") and "proc: no task 99" in one.run("proc 99")
    one.qmp.run("system_powerdown")
    said = one.wait_end()
    assert re.search(r"\[shutdown\] Flushed \d+ causal events to disk\r\n", said)


def test_a_timeline_is_made_travelled_saved_and_had_back(machine):
    first = machine()
    use_and_save(first)
    first.close()
    one = machine(prompt=False, disk=first.disk)
    assert re.search(r"\[cpersist\] restored \d+ events from disk\r\n\[boot\] Timer",
                     one.wait_prompt())
    assert one.run("tl load work") == "Restored timeline 4: work\n"
    assert one.run("tl load work") == "Restore failed\n"
    events = chain(one.run("tl show work"))
    assert events == [("create", "timeline created"), *(("data", f"step {n}") for n in range(24)),
                      ("mark", "mark: half way")]
    assert "  persisted=yes events=26 chunks=3\n" in one.run("tl stats work")
    assert one.run("note load") == "Notes loaded\n"
    assert "[2]" in one.run("note") and "keep me" in one.run("note")
    assert one.run("tl delete shell/0") == "Deleted\n"
    assert one.run("tl load shell/0").startswith("Restored timeline ")
    assert ("unknown", "cmd") in chain(one.run("tl show shell/0"))
    assert one.run("fsck").endswith("sound\n")
    one.close()

    # A header that lies is refused.
    content = one.disk.read(0, one.disk.size)
    at = content.index(struct.pack("<4sIII32s", b"2PLT", 2, 26, 3, b"work"))
    one.disk.write(at + 8, struct.pack("<I", 0xFFFFFFFF))
    one = machine(disk=one.disk)
    assert one.run("tl load work") == "Restore failed\n"
    assert one.run("tl create work") == "Created timeline 4: work (shell)\n"
    assert "  persisted=legacy-or-invalid\n" in one.run("tl stats work")


def test_without_a_disk_only_saving_fails(machine):
    one = machine(disk=False, net=False)
    assert "[cpersist]" not in one.transcript
    one.run("tl create work")
    one.run("tl emit work x")
    assert one.run("tl save work") == "Save failed\n"
    assert one.run("tl load other") == "Restore failed\n"
    assert one.run("note save") == "note: save failed (no disk?)\n"
    assert one.run("note add a") == "Note 2 added\n"
    assert one.run("cflush") == "flush failed (no block filesystem?)\n"
    assert one.run("crestore") == "restore failed\n"
    assert one.run("tl export work /docs/x") == "Export failed: no disk\n"
    one.run("tl export work /tmp/x")
    assert "shell: x\n" in one.run("cat /tmp/x")
    before = newest_id(one)
    one.run("tl show work")
    assert newest_id(one) - before < 12  # looking adds the keys and the line, no more
