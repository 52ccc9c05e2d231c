"""The tools that ask the graph, against the graph as its single events show it."""
import collections
import re

import pytest

Event = collections.namedtuple("Event", "tick type subsystem desc parents")
LINE = re.compile(r"\[(\d+)\] T\+(\d+) (\w+) (\S+): (.*?)(?: \[→\d+\])?(?: \[←(\d+)\])?"
                  r"(?: \(parents: ([\d ]+)\))?")
TYPES = ("sched", "mem", "fs", "net", "syscall", "shell", "actor", "mesh", "io", "user")
HOSTILE = ["", "0", "-1", "+1", "4294967295", "4294967296", "99999999999999999999", "1e3", "0x10",
           "last", "%s%n%x", "'", '" "', "x" * 200, "\x01\x7f", "1 " * 14, ".. ..", "* * * *"]
FORMS = ["prov file", "prov task", "prov net", "prov search", "tldiff", "tldiff merge", "cbisect",
         "cbisect events", "cprof", "cdb", "cdb break type", "cdb break text", "eset", "eset type",
         "eset range", "eset filter user", "effects", "blast", "autopsy", "cdot",
         "cdot last effects", "cpath", "orphans", "graph-health", "schema show"]
REFUSALS = {
    "prov file": "prov file: need path", "prov task": "prov task: need pid",
    "prov x": "prov: unknown subcommand 'x'", "cbisect fs 0": "cbisect: threshold must be >= 1",
    "cbisect fs -5": "cbisect: invalid threshold", "cbisect fs 1x": "cbisect: invalid threshold",
    "cdb break": "usage: cdb break type <name> | text <substr> | clear",
    "cdb break type x": f"cdb: unknown type x\ncdb: valid types: {' '.join(TYPES)}",
    "cdb up": "cdb: no current event (run first)", "eset type": "usage: eset type <name>",
    "eset x": "unknown subcommand: x", "eset diff x y": "unknown type: x",
    "eset range 9 5": "  (empty set)", "eset diff fs fs": "  (empty set)",
    "tldiff merge a b": "Usage: tldiff merge <left> <right> <merged-name>",
    "tldiff a b": "Diff failed (timeline 'a' or 'b' not found)",
    "effects": "Usage: effects <event_id>", "blast x": "blast: invalid event id 'x'",
    "effects 4294967295": "Event 4294967295 not found", "prov net": "No events found",
    "autopsy 0": "autopsy: invalid event id '0'", "cdot 0": "cdot: event 0 not found",
    "schema show 99": "schema: '99' not found"}


class Graph(dict):
    """Events by number, each asked for once; `ids` are those that were there at first."""

    def __init__(self, machine):
        super().__init__()
        self.machine = machine
        self.ids = range(1, numbers(r"^\[(\d+)", machine.run("events 1"))[0] + 1)

    def __missing__(self, number):
        line = self.machine.run(f"trace {number}").split("\n")[0]
        tick, kind, subsystem, desc, parent, parents = LINE.fullmatch(line).groups()[1:]
        self[number] = Event(int(tick), kind.replace("fs_op", "fs"), subsystem, desc,
                             numbers(r"(\d+)", parents or parent or ""))
        return self[number]

    def those(self, condition):
        return [number for number in self.ids if condition(self[number])]

    def children(self, number):
        return self.those(lambda event: number in event.parents)


def numbers(pattern, text):
    return [int(number) for number in re.findall(pattern, text, re.MULTILINE)]


@pytest.fixture(name="one")
def _one(machine):
    """A quiet machine: what is recorded is what a test does."""
    one = machine(disk=False, net=False)
    one.run("write /tmp/evidence something")
    return one


def test_provenance_and_sets_list_what_matches(one):
    graph = Graph(one)
    files = graph.those(lambda event: event.type == "fs")[::-1]
    assert numbers(r"\[(\d+)\]", one.run("prov sub fs")) == files
    walk = [files[0]]
    while len(walk) < 32 and graph[walk[-1]].parents:
        event = graph[walk[-1]]
        others = [p for p in event.parents if graph[p].subsystem != event.subsystem]
        walk.append((others if len(event.parents) > 1 and others else event.parents)[0])
    text = one.run("prov file evidence")
    assert numbers(r"^  \[(\d+)\]", text) == files[:2] and numbers(r"← \[(\d+)\]", text) == walk

    lines = [f"  #{n:<4} [fs    ] {graph[n].subsystem:<16} {graph[n].desc}\n" for n in files]
    everything = "".join(lines) + f"  --- {len(files)} event(s) ---\n"
    for form in ("type fs", "sub fs", "intersect fs fs", "diff fs io"):
        assert one.run(f"eset {form}") == everything
    assert one.run("eset filter fs evidence") == "".join(lines[:2]) + "  --- 2 event(s) ---\n"
    actors = graph.those(lambda event: event.type == "actor")[::-1]
    assert numbers(r"^  #(\d+)", one.run("eset union actor fs")) == actors + files
    assert numbers(r"^  #(\d+)", one.run("eset range 0 4294967295")) == list(range(1, 129))


def test_bisection_and_profile_count_as_their_reader_does(one):
    graph = Graph(one)
    for metric, ids in (("fs", graph.those(lambda event: event.type == "fs")),
                        ("events", graph.ids)):
        wanted = len(ids) - 1
        tick = graph[ids[wanted - 1]].tick
        before = sum(graph[n].tick < tick for n in ids)
        text = one.run(f"cbisect {metric} {wanted}")
        probes = re.findall(rf"  probe tick \d+ -> {metric}=(\d+)  (\w+)\n", text)
        assert all((int(value) >= wanted) == (verdict == "hit") for value, verdict in probes)
        assert re.search(rf"\nFOUND: tick {tick} \({metric}=\d+, crossed from {before}\) after "
                         rf"{len(probes)} probes\n", text), text
    assert one.run("cbisect net 1").startswith("cbisect: net never reached 1 (max 0 at tick ")

    text = one.run("cprof 100000")
    pairs = collections.defaultdict(list)
    for number in range(1, numbers(r"last (\d+) events", text)[0] + 1):
        for parent in graph[number].parents:
            pairs[graph[parent].type, graph[number].type].append(
                graph[number].tick - graph[parent].tick)
    order = sorted(pairs, key=lambda p: (-len(pairs[p]), -sum(pairs[p]), *map(TYPES.index, p)))
    lines = [f"  {pair[0]} -> {pair[1]}{' *' * (pair[0] != pair[1])}  edges {len(spans)}  "
             f"span {sum(spans)}t (avg {sum(spans) // len(spans)}t, max {max(spans)}t)\n"
             for pair, spans in ((pair, pairs[pair]) for pair in order[:8])]
    assert "".join(lines) + "By subsystem" in text
    crossings = sum(len(spans) for pair, spans in pairs.items() if pair[0] != pair[1])
    edges = sum(map(len, pairs.values()))
    assert f"\nSummary: {edges} edges, {crossings} cross-subsystem crossings, " in text
    assert one.run("cprof 0").startswith("CAUSAL FLOW PROFILE (last 1 events, ")


def test_the_debugger_and_the_cones_walk_the_edges(one):
    graph = Graph(one)
    files = graph.those(lambda event: event.type == "fs")
    one.run("cdb break type fs")
    assert [one.run("cdb run" if n == files[0] else "cdb c") for n in files] == [
        f"Breakpoint hit at event #{n}\n#{n} [fs] fs: {graph[n].desc} (tick {graph[n].tick})\n"
        for n in files]
    assert one.run("cdb continue") == "cdb: no more matches\n"
    assert one.run("cdb s") == f"cdb: no downstream effect from #{files[-1]}\n"
    cause = graph[files[-1]].parents[0]
    assert one.run("cdb up").startswith(f"moved up to cause #{cause}\n#{cause} ")
    assert one.run("cdb step").startswith(f"stepped to effect #{graph.children(cause)[0]}\n")
    assert numbers(r"#0  #(\d+)", one.run("cdb bt")) == [cause]

    near = [graph.children(files[3])]
    while len(near) < 4:
        near.append([child for number in near[-1] for child in graph.children(number)])
    for command, wanted in (("effects", near[0]), ("blast", sum(near, [])),
                            ("autopsy", sum(near, []))):
        text = one.run(f"{command} {files[3]}").split("Effect cone")[-1]
        assert set(numbers(r"^ +(?:→ )?\[(\d+)\]", text)) & set(graph.ids) == set(wanted)
    edges = re.findall(r'"(\d+)" -> "(\d+)"', one.run(f"cdot {files[-1]} 512"))
    assert (str(cause), str(files[-1])) in edges
    assert all(int(a) in graph[int(b)].parents for a, b in edges)
    orphans = graph.those(lambda event: not event.parents)
    assert numbers(r"^  \[(\d+)\]", one.run("orphans")) == orphans[:-6:-1]


def test_timelines_are_compared_and_merged(one):
    for name, text in (("left", "a"), ("right", "b"), ("left", "c")):
        one.run(f"tl create {name} app")
        one.run(f"tl emit {name} {text}")
    for pair, counts in (("left right", [0, 1, 0, 2]), ("right right", [2, 0, 0, 0])):
        assert numbers(r": +(\d+) (?:events|positions)$", one.run(f"tldiff {pair}")) == counts
    merged = "Merged 'left' + 'right' -> 'both' (5 events)\n"
    assert one.run("tldiff merge left right both") == merged
    assert re.findall(r" data +(\w)\n", one.run("tl show both")) == ["a", "b", "c"]
    assert one.run("tldiff merge left right both") == "Merge failed (timeline not found?)\n"


def test_every_refusal_is_a_line_and_nothing_does_harm(one):
    assert {line: one.run(line)[:-1] for line in REFUSALS} == REFUSALS
    for line in (f"{form} {argument}" for form in FORMS for argument in HOSTILE):
        one.send(line[:250] + "\r")
        one.wait_prompt()
    assert one.run("cdot selftest").endswith("}\n") and "PASS" in one.run("cpath selftest")
    assert "Connectivity: 100% (excellent)\n" in one.run("graph-health")
