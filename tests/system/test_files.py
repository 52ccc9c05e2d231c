"""The file commands, the editor and scripts as a person uses them, with a disk and without."""
import re

from rig import Disk

SAVED, LEFT = "\x13", "\x11"  # Ctrl+S, Ctrl+Q


def test_a_session_with_files_in_ram_and_on_the_disk(machine):
    disk = Disk()
    one = machine(disk=disk, net=False)
    assert one.run("cat /tmp/test/hello.txt") == "Hello, world!\n"
    assert one.run("cd home") == "" and one.run("pwd") == "/home\n"
    assert one.run("run demo.sl").splitlines()[-2:] == ["Done counting.",
                                                        "Loop completed correctly."]
    assert one.run('write "a note" volatile').endswith("(RAM)\n")
    assert one.run('cp "a note" demo.sl /docs').startswith("cp: /docs: not a directory")
    one.run("mkdir -p /docs/notes")
    assert one.run('cp "a note" demo.sl /docs/notes') == ""
    assert one.run("rm none ../home") == ("rm: none: no such file or directory\n"
                                          "rm: ../home: directory not empty\n")
    assert one.run("write /etc/motd Welcome back").endswith("(disk)\n")
    written = re.findall(r"\[(\d+)\] .*vofs: write motd", one.run("events 40"))[-1]
    assert "shell: cmd: write" in one.run(f"trace {written}")

    one.close()
    again = machine(disk=disk, net=False)
    assert {"bin/", "docs/", "etc/", "home/", "tmp/"} <= set(again.run("ls").splitlines())
    assert again.run("cat '/home/a note'").startswith("cat: ")
    assert again.run('cat "/docs/notes/a note"') == "volatile\n"
    assert again.run("mv /docs/notes/demo.sl /tmp/script") == ""
    assert "Count: 4\n" in again.run("vorsh /tmp/script")


def test_eight_megabytes_pass_through_small_buffers(machine):
    one = machine(disk=Disk(size=64 << 20), net=False)

    def used():
        return int(re.search(r"Used: +(\d+) KB", one.run("heap")).group(1))

    one.run('diskfill /large 8400000 "all work and no play "')
    one.run("rm /tmp/test/hello.txt")
    before = used()
    assert one.run("wc -c /large") == " 8400000 /large\n"
    assert one.run("cp /large /twin") == "" and used() == before
    assert one.run("cp /large /tmp/l") == "" and used() > before + 8000
    assert one.run("mv /tmp/l /moved") == "" and used() == before
    for copy in ("twin", "moved"):
        assert "the same" in one.run(f"diskcmp /large /{copy}")


def test_the_editor_works_over_serial_and_ps2(machine):
    one = machine(disk=False, net=False)
    one.send("edit poem\r")
    one.wait_for("^Q quit")
    one.send("roses\rviolets\r\x1b[A\x1b[A!\x1b[B\x1b[B")
    one.wait_vga("poem *  3:1 ")
    # The controller's queue is short: each key waits until the one before is seen.
    for key, seen in (("a", "a"), ("shift+b", "aB"), ("left", " 3:2 "), ("delete", " 3:2 "),
                      ("c", "ac"), ("ctrl+s", "saved (RAM)")):
        one.press(key)
        one.wait_vga(seen)
    assert one.vga_text()[:3] == ["!roses", "violets", "ac"]
    one.send("lost\x1b[A" + LEFT)
    one.wait_for("Not saved")
    one.send(LEFT)
    one.wait_prompt()
    assert one.run("cat poem", ps2=True).endswith("!roses\nviolets\nac\n")


def test_pages_and_statements_are_asked_for(machine):
    one = machine(disk=False, net=False)
    one.send("edit many\r")
    one.wait_for("^Q quit")
    one.send("".join(f"row {i}\r" for i in range(60)) + SAVED)
    one.wait_for("saved")
    one.send(LEFT)
    one.wait_prompt()
    one.send("more many\r")
    for keys, last in (("", 23), (" ", 47), ("\r", 48), ("b", 24), ("b", 23), (" ", 47)):
        one.send(keys)
        assert one.wait_for("--More--").endswith(f"row {last}\r\n")
    one.send("q")
    one.wait_prompt()

    one.send("vorsh\r")
    for line, answer in (("set n 2", "vorsh> "), ("while $n > 0", "  ...> "),
                         (" expr n $n - 1", "  ...> "), ("end", "vorsh> "),
                         ("echo n is $n", "n is 0\r\n"), ("nothing", "line 1: unknown command"),
                         ("exit", "vorn:/$ ")):
        one.send(line + "\r")
        one.wait_for(answer)
