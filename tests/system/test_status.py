"""What the system says of itself, and who may do what: on the booted image, with arguments that a
person, a slip of the hand or an attacker would give."""
import re
import time

import pytest

DIGEST_USAGE = "usage: digest [tasks|actors|net|memory|causal|health]\n"
MOOD_USAGE = "  usage: mood [history|explain|set <mood>|reset]\n"
SCHEDULE_USAGE = "usage: schedule <tick> <command...>\n"
TEMPCAP_USAGE = ("Usage: tempcap <list [pid]|grant <pid> <cap> <duration_ticks>|"
                 "revoke <pid> <token_id>|status>\n")
CAP_USAGE = ("Usage: cap [list|show <pid>|grant <pid> <cap>|revoke <pid> <cap>|audit|test <cap>]\n"
             "Capabilities: net disk actor memory admin console fs mesh syscall all\n")
HUGE = "9" * 120

ANSWERS = [
    ("cap show", CAP_USAGE), ("cap grant 3", CAP_USAGE), ("cap list x", CAP_USAGE),
    (f"cap {HUGE}", CAP_USAGE), ("cap test root", "Unknown capability: root\n"),
    (f"cap show {HUGE}", f"cap: bad pid '{HUGE}'\n"), ("cap show 63", "cap: no task with pid 63\n"),
    ("cap grant 64 net", "cap: bad pid '64' (0..63)\n"),
    ("cap revoke -1 all", "cap: bad pid '-1' (0..63)\n"),
    ("tempcap", TEMPCAP_USAGE), ("tempcap grant 3 net", TEMPCAP_USAGE),
    ("tempcap list 3 4", TEMPCAP_USAGE), ("tempcap list x", "tempcap: bad pid 'x' (0..63)\n"),
    ("tempcap grant 3 net 0", "tempcap: duration must be > 0\n"),
    (f"tempcap grant 3 net {HUGE}", "tempcap: duration must be > 0\n"),
    ("tempcap grant 3 root 5", "tempcap: unknown capability 'root'\n"),
    ("tempcap grant 3 net 4294967295", "tempcap: grant failed\n"),
    ("tempcap revoke 3 77", "tempcap: token not found\n"),
    ("tempcap x", "Unknown subcommand 'x'. Try: list, grant, revoke, status\n"),
    ("liveness register a", "Usage: liveness register <name> <interval>\n"),
    (f"liveness register a {HUGE}", "liveness: interval must be > 0\n"),
    ("liveness check", "Usage: liveness check <name>\n"),
    ("liveness check nosuch", "liveness: 'nosuch' not registered\n"),
    ("liveness %s%n", "liveness: unknown subcommand '%s%n'\n"),
    ("digest foo", DIGEST_USAGE), ("digest net net", DIGEST_USAGE),
    ("mood set", MOOD_USAGE), (f"mood {HUGE}", MOOD_USAGE),
    ("mood set %s", "  unknown mood: %s\n  valid: zen calm busy stressed critical recovering\n"),
    ("schedule", SCHEDULE_USAGE), ("schedule 5", SCHEDULE_USAGE),
    ("schedule -5 ls", SCHEDULE_USAGE), (f"schedule {HUGE} ls", SCHEDULE_USAGE),
    ("scheduled x", "Scheduled commands:\n  (none pending)\n"),
]


@pytest.mark.parametrize("disk", [True, False])
def test_the_system_describes_itself_and_wrong_arguments_get_one_line(machine, disk):
    one = machine(disk=disk, net=False)
    for command, answer in ANSWERS:
        assert one.run(command) == answer, command
    status = one.run("status huge arguments are ignored")
    assert re.search(r"  Tasks:       (\d+) total \(1 run, \d+ ready, \d+ blocked\)\n", status)
    assert "  Vorn System Status" in status and "  Uptime:      0h 0m " in status
    names = [line.split()[3] for line in one.run("ps").splitlines()[2:]]
    assert names[:2] == ["shell", "boot"]
    assert {"sched_app", "tempcap", "liveness", "mood", "idle"} <= set(names)
    assert f"{len(names)} total" in one.run("status")
    assert len(one.run("ptree").splitlines()) == 1 + len(names)
    assert re.search(r"CPU 0: active=Y  current=shell\(\d+\)  switches=\d+  \[busy\]\n",
                     one.run("cpu"))
    regions = re.findall(r"  0x(\w{8}) - 0x(\w{8}) +(\d+) KB", one.run("memmap x"))
    ends = [(int(first, 16), int(last, 16) + 1) for first, last, _ in regions]
    assert [end for _, end in ends[:-1]] == [start for start, _ in ends[1:]] and ends[0][0] == 0
    assert [(end - start) // 1024 for start, end in ends] == [int(size) for *_, size in regions]
    counts = re.findall(r"(?m)^ [ \d]\d +(\d+) +\d+  \S|^ +(\d+) +\d+  TOTAL", one.run("irqstat"))
    assert sum(int(count or 0) for count, _ in counts) == int(counts[-1][1]) > 0
    report = one.run("digest")
    assert len(report) > 1000 and "  All systems nominal.\n" in report
    for section, title in [("tasks", "TASKS"), ("net", "NETWORK"), ("causal", "CAUSAL GRAPH")]:
        part = one.run(f"digest {section}")
        assert part.startswith(f" {title}\n" + "-" * 44 + "\n")
    assert "(^_^)  zen" in one.run("mood")


def test_a_remark_at_its_tick_and_what_lives_is_said_to_live(machine):
    one = machine(disk=False, net=False)
    now = int(re.search(r"\((\d+) ticks\)", one.run("uptime")).group(1))
    assert one.run(f"schedule {now + 100} echo it is time") == \
        f"Scheduled at T+{now + 100} (slot 0): echo it is time\n"
    assert f"  [0] at T+{now + 100}: echo it is time\n" in one.run("scheduled")
    assert one.run("liveness register ghost 20") == "registered 'ghost' (interval 20 ticks)\n"
    one.wait_for("echo it is time\r\nit is time")
    assert "(none pending)" in one.run("scheduled")
    events = one.run("tl show schedule")
    assert "schedule: echo it is time at T+" in events and "executed: echo it is time" in events
    one.wait_until(lambda: "ghost: DEAD" in one.run("liveness check ghost"), "the ghost's end")
    states = dict(line.split()[:2] for line in one.run("liveness list").splitlines()[1:-1])
    assert states["shell"] == "ALIVE"
    assert "INVALID" not in one.run("liveness proofs")


def test_top_is_drawn_anew_until_q(machine):
    one = machine(disk=False, net=False)
    one.send("top\r")
    for _ in range(3):
        one.wait_for(re.compile(r"Vorn - Top {4}Uptime: 0m \d+s {4}Tasks: \d+  "
                                r"\(R:1  W:\d+  B:\d+\)"))
        one.wait_for("Press 'q' to exit")
    one.wait_vga("Press 'q' to exit")
    one.send("xyz")  # other keys do nothing
    one.press("q")
    one.wait_prompt()
    assert "Press 'q'" not in "\n".join(one.vga_text())


def test_a_shell_without_admin_harms_nobody_also_not_through_others(machine):
    one = machine(disk=False, net=False)
    pid = re.search(r"pid (\d+) \(shell\)", one.run("cap")).group(1)
    assert one.run(f"tempcap grant {pid} admin 1").startswith("granted token 1 ")
    assert one.run(f"cap revoke {pid} admin") == f"Revoked admin from pid {pid}\n"
    one.wait_until(lambda: "no temporal" in one.run("tempcap list"), "the grant's end")
    for command, answer in [
            ("halt", "halt: permission denied (need admin)\n"),
            ("crash div0", "crash: permission denied (need admin)\n"),
            (f"cap grant {pid} all", "cap: grant failed (need admin)\n"),
            (f"tempcap grant {pid} all 99", "tempcap: grant failed (need admin)\n"),
            ("cap test fs", "fs: GRANTED\n"),
            ("write /tmp/own mine", "4 bytes written to /tmp/own (RAM)"), ("cat /tmp/own", "mine")]:
        assert one.run(command).strip() == answer.strip(), command
    one.run("schedule 0 halt")
    one.wait_for("halt: permission denied (need admin)")
    assert "DENIED  admin    \"power off\"" in one.run("cap audit")
    assert f"DENIED pid={pid} needs=admin op=power off" in one.run("events 60")


def test_faults_darken_the_mood_and_it_recovers(machine):
    one = machine(disk=False, net=False)

    def critical():
        one.run("crash")  # the usage; its name alone is what the mood looks for
        time.sleep(0.3)
        return "critical" in one.run("mood history")
    one.wait_until(critical, "a critical mood")
    shown = one.run("mood")
    assert re.search(r"Last fault: event \d+ \(cmd: crash\)\n  Try: query root-cause \d+\n", shown)
    one.wait_until(lambda: "recovering" in one.run("mood history"), "recovery")


def test_an_idle_system_records_next_to_nothing(machine):
    one = machine(disk=True, net=False)
    one.read_for(4)

    def newest():
        return int(re.search(r"\[(\d+)\]", one.run("events 1")).group(1))
    before = newest()
    one.read_for(6)
    assert newest() - before < 15  # a few of them are the question's own
