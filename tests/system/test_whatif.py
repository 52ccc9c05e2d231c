"""What-if, blame, search and patterns as a user meets them."""
import re

HOSTILE = ["", "0", "-1", "+1", "4294967295", "4294967296", "99999999999999999999", "1e3", "0x10",
           "last", "first", "%s%n%x", "'", '"', '" "', "x" * 200, "\x01\x7f", "->", "|+/!", "..",
           "1 " * 14, "AND", "a AND", "AND b", "within 5", "* * * * * *"]
FORMS = ["drop", "summary", "fix", "branch", "remove", "inject", "analyze", "impact", "compare",
         "destroy"]


def newest(machine, what):
    """The newest event whose line says `what`."""
    return int(re.findall(rf"\[(\d+)\][^\n]*{what}", machine.run("events 40"))[-1])


def test_from_what_happened_to_what_would_not_have(machine):
    one = machine()
    one.run("write /tmp/evidence something")
    write = newest(one, "write evidence")
    command = newest(one, "shell shell: cmd: write")
    assert f"[{write}] fs: write evidence" in one.run(f"whatif {command}")
    line = one.run(f"whatif summary {command}")
    assert re.fullmatch(rf"whatif: drop #{command} \(shell\) -> \d+ events eliminated, subsystems:"
                        r" .*fs\(\d+\).*, verdict: \w+ IMPACT\n", line), line
    assert one.run("search evidence").endswith("(no matches)\n")
    assert re.match(r"csearch: indexed \d+ events, \d+ unique terms\n", one.run("search rebuild"))
    assert f"#{write} " in one.run("search Evidence AND write")
    assert f"[{command}] shell/shell" in one.run("pattern match shell -> fs/fs within 100")
    text = one.run(f"blame {write}")
    assert text.startswith(f"blame: suspects for #{write} ") and f"#{command} " in text
    fix = one.run(f"whatif fix {write}")
    assert fix.startswith(f"whatif fix: fault #{write} \"write evidence") and "(blame " in fix


def test_self_tests_pass_on_the_machine(machine):
    one = machine()
    for test in ("selftest", "opstest", "demos", "live", "sleeptest", "fstest", "captest"):
        text = one.run(f"whatif {test}")
        assert "PASS" in text and "FAIL" not in text, text


def test_a_watcher_counts_what_happens_while_nobody_looks(machine):
    one = machine(disk=False)
    assert one.run("pattern watchers") == "no active watchers\n"
    assert one.run("pattern watch shell -> fs/fs") == "watcher 0 installed\n"
    assert one.run("pattern watch actor+") == "watcher 1 installed\n"
    for number in range(3):
        one.run(f"write /tmp/w{number} text")
    one.wait_until(lambda: "shell/* -> fs/fs  (3 matches)" in one.run("pattern watchers"),
                   "three matches")
    assert one.run("events").count("watcher 0 matched #") == 3
    assert "watcher 1: actor+/*  (0 matches)" in one.run("pattern watchers")


def test_no_argument_does_harm(machine):
    one = machine()
    for slot in range(4):
        assert one.run("whatif branch 5").startswith(f"whatif: branch {slot} created")
    assert one.run("whatif branch 5") == "whatif: all 4 branch slots full\n"
    for form in FORMS:
        assert one.run(f"whatif {form}").startswith(f"Usage: whatif {form} <")
    lines = [f"whatif {form} {argument}" for form in FORMS[:6] for argument in HOSTILE[:16]]
    lines += [f"whatif {form} {slot}" for form in FORMS[6:] for slot in ("9", "-1", "4294967296")]
    lines += [f"{command} {argument}" for argument in HOSTILE
              for command in ("whatif", "blame", "search", "pattern match", "pattern count")]
    for line in lines:
        one.send(line[:250] + "\r")
        assert one.wait_prompt().strip(), line
    for slot in range(4):
        one.run(f"whatif destroy {slot}")
    assert one.run("whatif list") == "whatif: no active branches\n"
    assert "PASS" in one.run("whatif selftest")
