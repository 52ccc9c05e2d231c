"""The shell as a person uses it: keys on the serial line and on the PS/2 keyboard, the screen, and
what hostile or hasty typing must not do."""
import random
import re
import time

import pytest

ARROWS = {"up": "\x1b[A", "down": "\x1b[B", "right": "\x1b[C", "left": "\x1b[D", "home": "\x1b[H",
          "end": "\x1b[F", "delete": "\x1b[3~", "backspace": "\x7f", "ret": "\r", "ctrl+l": "\x0c"}


def test_start_ends_in_the_banner_and_a_prompt(machine):
    one = machine(prompt=False, disk=False, net=False)
    before = one.wait_prompt()
    items = re.findall(r"  \[  OK  \] (.*)\r\n", before)
    assert items == ["Memory manager (PMM + VMM)", "Interrupt controller (PIC/PIT @ 100Hz)",
                     "Task scheduler (8 priorities, preemptive)", "RAM filesystem mounted at /",
                     "Initial filesystem populated", "Causal event graph started",
                     "Timeline framework initialized", "Actor system (5 actors registered)",
                     "Boot scripts executed"]
    assert "\r\n  Boot complete.\r\n\r\n" in before
    screen = one.vga_text()
    assert not any("booting services" in line for line in screen)
    assert "█" in screen[1] and screen[7] == "    Distributed Actor Operating System"
    assert re.fullmatch(r"  Kernel: Vorn x86-32    Memory: 127 MB    Programs: 0", screen[9])
    assert re.fullmatch(r"  Actors: 5 {13}Uptime: \d+ ticks   Type 'help' for commands", screen[10])
    assert screen[12:14] == ["  Identity  (initializing...)",
                             "  Actors    5 registered    Routes  5 active"]
    assert screen[14:17] == ["[shell] Timeline shell/0 created",
                             "Try: programs, dmesg 5, events, status, showcase", "vorn:/$"]


@pytest.mark.parametrize("device", ["serial", "ps2"])
def test_a_line_is_edited_the_same_from_either_keyboard(machine, device):
    one = machine(disk=False)

    def press(*keys):
        for key in keys:
            if device == "ps2":
                one.press(key)
            else:
                one.send(ARROWS.get(key, key))
            time.sleep(0.02)  # the controller's queue is short

    one.run("echo first")
    press(*"xcho", "home", "delete", "e", "end", "spc" if device == "ps2" else " ", *"abd",
          "left", "c", "right", "backspace", "ret")
    assert one.wait_prompt().endswith("\r\nabc\r\n")
    press(*"typed", "up", "up", "down", "down", "up", "up", "ret")
    assert one.wait_prompt().endswith("\r\nfirst\r\n")
    press(*"help", "ctrl+l")
    assert one.wait_vga("vorn:/$ help")[0] == "vorn:/$ help"


def test_a_pasted_line_loses_nothing(machine):
    one = machine(disk=False)
    text = "".join(chr(ord("a") + i % 26) for i in range(200))
    for _ in range(5):
        one.send(f"echo {text}\r")
        assert one.wait_prompt().endswith(f"\r\n{text}\r\n")


def test_a_key_stands_behind_the_command_it_typed(machine):
    one = machine(disk=False)
    one.run("uptime", ps2=True)
    command = re.findall(r"\[(\d+)\] .*cmd: uptime", one.run("events 20"))[0]
    assert "key pressed scancode=0x1c" in one.run(f"trace {command}")


def test_ten_thousand_random_bytes_on_both_keyboards_do_no_harm(machine):
    seed = random.randrange(1 << 32)
    print("seed", seed)
    chance = random.Random(seed)
    one = machine(disk=False)
    keys = ["a", "ret", "up", "down", "left", "delete", "home", "end", "esc", "tab", "caps_lock",
            "shift", "ctrl", "alt", "f1", "pause", "print", "num_lock", "pgup", "kp_enter"]
    for _ in range(200):
        piece = "".join(chr(chance.randrange(128)) for _ in range(40))
        one.send(piece + chance.choice(["\x1b[", "\x1b[3", "\x1b[A", "\x1b[9;9H", "\x1b\x1b"]) * 3)
        one.press(*(chance.choice(keys) for _ in range(25)))
    one.read_for(1)
    one.send("\x1b[F" + "\x7f" * 60 + "\r")
    one.read_for(1)
    assert one.run("uname").startswith("Vorn 0.1.0")
    used = [int(re.search(r"Used: +(\d+) KB", one.run("heap")).group(1)) for _ in range(2)]
    assert used[0] == used[1] < 1000


@pytest.mark.parametrize("kind, name", [
    ("div0", "vector 0,"), ("break", "vector 3,"), ("opcode", "vector 6,"), ("gpf", "vector 13,"),
    ("page", "vector 14,")])
def test_crash_raises_the_exception_it_names(machine, kind, name):
    one = machine(disk=False)
    with one.expect_fault():
        one.send(f"crash {kind}\r")
        one.wait_for(name)
        assert "cmd: crash" in one.wait_for("surgeon> ")


def test_an_overrun_stack_ends_the_task_alone(machine):
    one = machine(disk=False)
    with one.expect_fault():
        one.send("crash stack\r")
        one.wait_for(re.compile(r"\[FAULT\] Stack overflow in 'shell' \(pid \d+\)\r\n"))
        assert one.read_for(1) == ""
