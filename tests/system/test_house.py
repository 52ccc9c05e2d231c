"""The house itself: the script's words and exit codes, the machine it starts, and that each check
of the sources finds the fault it is there for."""
import os
import re
import shutil
import signal
import socket
import subprocess
import time

import pexpect
import pytest

from rig import PROMPT, ROOT

VORN = str(ROOT / "vorn")


def vorn(*words, **variables):
    return subprocess.run([VORN, *words], env={**os.environ, **variables}, cwd=ROOT, text=True,
                          capture_output=True, stdin=subprocess.DEVNULL, timeout=300, check=False)


@pytest.fixture(autouse=True)
def no_machine_runs(tmp_path, monkeypatch):
    """A machine that somebody else runs in this folder is not ours to see."""
    monkeypatch.setenv("VORN_QMP", str(tmp_path / "qmp"))


@pytest.fixture
def fake_qemu(tmp_path):
    """A QEMU that prints its arguments and its process id, and then does what `body` says."""
    def make(body=""):
        path = tmp_path / "qemu"
        path.write_text(f'#!/bin/bash\necho "pid $$"\nprintf "%s\\n" "$@"\n{body}\n')
        path.chmod(0o755)
        return {"VORN_QEMU": str(path), "VORN_DISK": str(tmp_path / "disk.img")}
    return make


@pytest.mark.parametrize("words, status, stream, text", [
    ([], 1, "stderr", "./vorn run"),
    (["help"], 0, "stdout", "--memory MB"),
    (["tset"], 2, "stderr", "did you mean 'test'?"),
    (["run", "--memroy", "1"], 2, "stderr", "did you mean '--memory'?"),
    (["run", "--memory", "lots"], 2, "stderr", "'lots' is not a number"),
    (["run", "--accel", "warp"], 2, "stderr", "is not tcg, kvm or auto"),
    (["test", "unti"], 2, "stderr", "did you mean 'unit'?"),
    (["shot"], 2, "stderr", "name of a file"),
])
def test_words_and_exit_codes(words, status, stream, text):
    done = vorn(*words)
    assert (done.returncode, text in getattr(done, stream)) == (status, True), done
    assert (done.stdout == "") == (stream == "stderr")


def test_colour_only_on_a_terminal_that_wants_it():
    for variables, coloured in (({}, True), ({"NO_COLOR": "1"}, False)):
        environment = {**os.environ, "TERM": "xterm", **variables}
        if coloured:
            environment.pop("NO_COLOR", None)
        assert ("\x1b[" in pexpect.run(VORN + " tset", env=environment).decode()) == coloured
    assert "\x1b[" not in vorn("tset").stderr


def test_options_and_variables_reach_the_machine(fake_qemu, tmp_path):
    done = vorn("run", "--memory", "64", "--no-net", "--", "-S", VORN_CPUS="3", VORN_DISK_MB="5",
                **fake_qemu())
    assert done.returncode == 0, done.stderr
    words = done.stdout.split("\n")
    for name, value in (("-m", "64"), ("-smp", "3"), ("-nic", "none"), ("-accel", "tcg"),
                        ("-serial", "mon:stdio"), ("-cpu", "max"), ("-display", "none")):
        assert words[words.index(name) + 1] == value
    assert {"-S", "-no-reboot", "virtio-blk-pci,drive=disk0,disable-modern=on"} <= set(words)
    disk = os.stat(tmp_path / "disk.img")
    assert disk.st_size == 5 << 20 and disk.st_blocks == 0
    assert "Ctrl-a x" in done.stderr
    assert "-drive" not in vorn("run", "--no-disk", **fake_qemu()).stdout


def test_a_busy_port_becomes_the_next_free_one_and_only_this_machine_is_served(fake_qemu):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        port = taken.getsockname()[1]
        done = vorn("run", VORN_PORT_TELNET=str(port), VORN_PORT_CHAT=str(port), **fake_qemu())
    forwards = re.findall(r"hostfwd=tcp:([\d.]+):(\d+)-:(\d+)", done.stdout)
    assert {address for address, _, _ in forwards} == {"127.0.0.1"}
    host = {int(guest): int(port) for _, port, guest in forwards}
    assert set(host) == {23, 5200, 6667, 5101, 8080} and len(set(host.values())) == 5
    assert host[23] > port and host[6667] > host[23]
    assert f"port {port} (telnet) is busy: using {host[23]}" in done.stderr


def test_the_machine_dies_with_the_script(fake_qemu, tmp_path):
    variables = fake_qemu(f"echo $$ >{tmp_path}/pid; exec sleep 1000")
    for order in (signal.SIGTERM, signal.SIGKILL):
        script = subprocess.Popen([VORN, "shot", str(tmp_path / "x.png")], cwd=ROOT,
                                  env={**os.environ, **variables}, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 60
        while not (tmp_path / "pid").exists() or not (tmp_path / "pid").read_text().strip():
            assert time.monotonic() < deadline
            time.sleep(0.05)
        machine = f"/proc/{(tmp_path / 'pid').read_text().strip()}/cmdline"
        script.send_signal(order)
        script.wait(timeout=10)
        while os.path.exists(machine) and open(machine, "rb").read():
            assert time.monotonic() < deadline, "the machine outlived the script"
            time.sleep(0.05)
        (tmp_path / "pid").unlink()


def test_a_filter_that_matches_nothing_is_a_failure():
    done = vorn("test", "fuzz", "-k", "no-such-target")
    assert done.returncode == 1 and done.stdout.split("\n")[-2] == "0 passed, 1 failed"


def test_shot_saves_the_screen(tmp_path):
    done = vorn("shot", str(tmp_path / "screen.png"), "--no-disk")
    assert done.returncode == 0, done.stderr
    assert (tmp_path / "screen.png").read_bytes().startswith(b"\x89PNG")


def test_run_gives_the_terminal_to_the_console_until_ctrl_a_x():
    terminal = pexpect.spawn(VORN, ["run", "--no-disk", "--no-net"], timeout=60, encoding="utf-8",
                             codec_errors="replace")
    terminal.expect_exact("Ctrl-a x")
    terminal.expect(PROMPT)
    terminal.send("echo typed here\r")
    terminal.expect("\ntyped here\r")
    terminal.send("\x01x")
    terminal.expect(pexpect.EOF)
    terminal.close()
    assert terminal.exitstatus == 0


def test_stop_ends_the_running_machine_in_order(tmp_path):
    """And `disk` looks at its image only then."""
    image = str(tmp_path / "disk.img")
    done = vorn("stop")
    assert done.returncode == 1 and "no machine is running" in done.stderr
    terminal = pexpect.spawn(VORN, ["run", "--no-net", "--disk", image], timeout=60,
                             encoding="utf-8", codec_errors="replace")
    terminal.expect(PROMPT)
    terminal.send("diskwrite /kept for good\r")
    terminal.expect(PROMPT)
    done = vorn("disk", image, "ls")
    assert done.returncode == 1 and "in use" in done.stderr
    assert vorn("stop").returncode == 0
    terminal.expect_exact("[shutdown] System halted")
    terminal.expect(pexpect.EOF)
    assert vorn("disk", image, "get", "/kept", "-").stdout == "for good"


def test_stop_gives_up_on_a_machine_that_does_not_answer(tmp_path):
    terminal = pexpect.spawn(VORN, ["run", "--no-disk", "--no-net", "--", "-S"], timeout=60)
    terminal.expect_exact("Ctrl-a x")
    while not (tmp_path / "qmp").exists():
        time.sleep(0.05)
    done = vorn("stop", VORN_STOP_SECONDS="1")
    assert done.returncode == 1 and "did not stop" in done.stderr
    terminal.send("\x01x")
    terminal.expect(pexpect.EOF)


def test_gdb_attaches_with_symbols_to_a_waiting_machine_and_to_its_own():
    waiting = pexpect.spawn(VORN, ["run", "--gdb", "--no-disk", "--no-net"], timeout=60)
    waiting.expect_exact("Ctrl-a x")
    for where in ("waiting machine", "machine of its own"):
        done = vorn("gdb", "-batch", "-ex", "hbreak kernel_main", "-ex", "continue", "-ex", "bt 1",
                    "-ex", "kill")
        assert re.search(r"#0 +kernel_main \(magic=\d+", done.stdout), (where, done)
        assert ("starting one" in done.stderr) == (where != "waiting machine"), done
    waiting.expect(pexpect.EOF)


HEAD = '#pragma once\n\n#include "kernel/core/compiler.h"\n\n'
NESTED = "".join(f"{'    ' * n}if (a > {n}) {{\n" for n in range(1, 5))
# The check, the file to plant, and a text that it must not accept.
FAULTS = [
    ("includes-point-down", "kernel/core/low.h", '#pragma once\n#include "kernel/apps/top.h"\n'),
    ("no-include-cycles", "kernel/apps/top.h", '#pragma once\n#include "kernel/apps/top2.h"\n'),
    ("masking-is-a-scope", "kernel/core/a.cpp", "void f() { cpu_cli(); }\n"),
    ("hardware-stays-low", "kernel/core/a.cpp", 'void f() { asm volatile("hlt"); }\n'),
    ("line-length", "kernel/core/a.cpp", "//" + " x" * 50 + "\n"),
    ("function-length", "kernel/core/a.cpp", "void f() {\n" + "    f();\n" * 70 + "}\n"),
    ("words", "kernel/core/a.cpp", "// TO" "DO\n"),
    ("clang-format", "kernel/core/a.cpp", "int  f();\n"),
    ("headers-stand-alone", "kernel/core/low.h", "#pragma once\nuint32_t low();\n"),
    ("thread-safety", "kernel/core/a.cpp",
     '#include "kernel/core/guards.h"\n\nint shared GUARDED_BY(irq_mask);\nint f() {\n'
     "    return shared;\n}\n"),
    ("clang-tidy", "kernel/core/a.cpp", f"int f(int a) {{\n{NESTED}}}}}}}}}\n    return a;\n}}\n"),
]


@pytest.fixture(scope="session")
def clean_tree(tmp_path_factory):
    tree = tmp_path_factory.mktemp("tree")
    for name in (".clang-format", ".clang-tidy", "kernel/core/compiler.h", "kernel/core/guards.h",
                 "arch/x86/cpu.h", "tools/qmp.py"):
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(ROOT / name, tree / name)
    (tree / "kernel/apps").mkdir()
    (tree / "kernel/apps/top.h").write_text(HEAD + "int top();\n")
    (tree / "kernel/apps/top2.h").write_text('#pragma once\n#include "kernel/apps/top.h"\n')
    (tree / "kernel/core/low.h").write_text(HEAD + "int low();\n")
    (tree / "kernel/core/a.cpp").write_text('#include "kernel/core/low.h"\n')
    return tree


def lint(tree, check):
    return subprocess.run(["/usr/bin/python3", str(ROOT / "tools/lint/lint.py"), "--root",
                           str(tree), "-k", check], text=True, capture_output=True, check=False)


@pytest.mark.parametrize("check, path, text", FAULTS, ids=[fault[0] for fault in FAULTS])
def test_each_check_finds_its_fault_and_accepts_sound_code(clean_tree, tmp_path, check, path, text):
    tree = shutil.copytree(clean_tree, tmp_path / "tree")
    sound = lint(tree, check)
    assert sound.returncode == 0 and sound.stdout.startswith(f"OK {check}"), sound.stdout
    (tree / path).write_text(text)
    planted = lint(tree, check)
    assert planted.returncode == 1 and planted.stdout.startswith(f"FAIL {check}"), planted.stdout
    assert path in planted.stdout
