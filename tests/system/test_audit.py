"""The offline auditor, held against an independent judge."""
import collections
import json
import os
import random
import subprocess

import pytest

import journal_oracle as oracle
from rig import ROOT

SEED = bytes(range(32))
TOOLS = ROOT / "build" / "tools"


def tool(name, *words):
    return subprocess.run([TOOLS / f"vorn-{name}", *map(str, words)], capture_output=True,
                          text=True, timeout=60, check=False)


def record(number, desc=b"thing", subsystem=b"test"):
    return oracle.make_record(number, number + 9, 3 * number, desc, subsystem,
                              parents=(number - 1,))


def runs(*lengths):
    """Records with identifiers from 1 on, a list for each segment."""
    ids = iter(range(1, 1000))
    return [[record(next(ids)) for _ in range(length)] for length in lengths]


@pytest.fixture
def image_of(tmp_path):
    """Makes a volume that holds these files; returns its path."""
    def make(files):
        image = tmp_path / "disk.img"
        image.write_bytes(oracle.make_volume(files))
        return image
    return make


def history(chance):
    """What a machine may leave: spills, also of single events ahead, losses, imports, evictions."""
    row, number, ahead = [], 1, []
    for _ in range(chance.randrange(2, 9)):
        what = chance.choice(["spill", "spill", "spill", "ahead", "lost", "import"])
        size = chance.randrange(1, 7)
        if what == "ahead":
            ahead.append(number + chance.randrange(30))
            row.append([record(ahead[-1])])
            continue
        if what == "import":
            row.append(tuple(record(100 + i) for i in range(size)))
            continue
        if what == "lost":
            said = number + 40
            row.append([record(said, b"lost %d..%d" % (number, number + 4), b"cjournal")])
            number += 5
        row.append([record(number + i) for i in range(size)])
        number += size
    # Where the single events come up again, they are the same.
    known = {oracle.RECORD.unpack(r[0])[0]: r[0] for r in row if len(r) == 1 and r == [*r]}
    row = [type(r)(r if isinstance(r, tuple) else
                   [known.get(oracle.RECORD.unpack(one)[0], one) for one in r]) for r in row]
    for _ in range(chance.choice([0, 0, 0, 1, 2, 4])):
        live = [r for r in row if isinstance(r, list) and r]
        if len(live) > 1:
            row[row.index(min(live))] = []
    return row


def damage(files, row, chance):
    """Changes files as an accident or somebody without the key would."""
    paths = sorted(path for path in files if path != "/causal/node-sign.key")
    path, other = chance.choice(paths), chance.choice(paths)
    data = bytearray(files[path])
    what = chance.choice(["nothing", "bytes", "bytes", "cut", "longer", "file", "segment", "swap",
                          "replay", "forge", "record"])
    if what == "bytes":
        for _ in range(chance.choice([1, 1, 9])):
            data[chance.randrange(len(data))] ^= chance.randrange(1, 256)
        files[path] = bytes(data)
    elif what == "cut":
        length = chance.randrange(len(data))
        whole_old_records = any((length - 44) % size == 0 for size in (136, 172))
        files[path] = bytes(data[:length - whole_old_records])
    elif what == "longer":
        files[path] = bytes(data + b"\0")
    elif what == "file":
        del files[path]
    elif what == "segment":
        for each in paths:
            if each[:20] == path[:20]:
                del files[each]
    elif what == "swap":
        files[path], files[other] = files[other], files[path]
    elif what == "replay":
        for each in paths:
            if each[:20] == other[:20]:
                files[path[:20] + each[20:]] = files[each]
    elif what in ("forge", "record"):
        row = [list(records) if isinstance(records, list) else records for records in row]
        records = chance.choice([r for r in row if isinstance(r, list) and r] or [[record(1)]])
        at = chance.randrange(len(records))
        number = oracle.RECORD.unpack(records[at])[0]
        if what == "record" and len(records) > 1:
            del records[at]
        else:
            records[at] = record(number, b"another")
        sealed = chance.choice([True, False])
        files |= {p: d for p, d in oracle.make_journal(row, SEED).items()
                  if sealed or not p.endswith(".sig")}


def test_a_sound_journal_is_sound_and_the_image_is_left_alone(image_of):
    image = image_of(oracle.make_journal(runs(16, 1, 5), SEED))
    before = image.read_bytes()
    done = tool("audit", image)
    assert done.returncode == 0 and "VERDICT: SOUND" in done.stdout, done
    report = json.loads(tool("audit", image, "--json").stdout)
    assert (report["verdict"], report["events"]) == ("SOUND", 22)
    assert [s["last_id"] for s in report["segments"]] == [16, 17, 22]
    assert image.read_bytes() == before


def test_exit_codes_and_options(image_of, tmp_path):
    files = oracle.make_journal(runs(3, 3), SEED)
    del files["/causal/seg-00000002.sig"]
    image = image_of(files)
    key = json.loads(tool("audit", image, "--json").stdout)["node_key"]
    for words, status in ([], 4), (["--key", key], 4), (["--key", "00" * 32], 1), \
            (["--key", "1"], 2), (["--no-such"], 2), ([image], 2), (["--help"], 0), \
            (["--state", tmp_path / "seen"], 4):
        assert tool("audit", image, *words).returncode == status, words
    assert tool("audit", tmp_path / "nothing").returncode == 1
    (tmp_path / "zeros").write_bytes(bytes(1 << 20))
    assert tool("audit", tmp_path / "zeros").returncode == 3
    # The second segment is gone: only what was seen before tells.
    files = {path: data for path, data in files.items() if "00000002" not in path}
    image = image_of(files)
    assert tool("audit", image).returncode == 0
    done = tool("audit", image, "--state", tmp_path / "seen")
    assert done.returncode == 1 and "its tail was removed" in done.stdout


def verdicts_on(images):
    """The exit codes of an audit of each, from one shell: a process apiece is cheap there."""
    script = 'for image; do "$0" "$image" >"$image.txt"; echo $?; done'
    done = subprocess.run(["sh", "-c", script, TOOLS / "vorn-audit", *images], timeout=60,
                          capture_output=True, text=True, check=True)
    return list(map(int, done.stdout.split()))


def test_agrees_with_the_independent_judge_on_random_damage(tmp_path):
    seed = int(os.environ.get("VORN_SEED") or random.SystemRandom().randrange(1 << 32))
    print("seed", seed)
    chance, seen = random.Random(seed), collections.Counter()
    for _ in range(100):
        row = history(chance)
        honest = oracle.make_journal(row, SEED)
        wanted, images = [oracle.judge(honest)], [tmp_path / "0.img"]
        images[0].write_bytes(oracle.make_volume(honest))
        for number in range(1, 21):
            files = dict(honest)
            damage(files, row, chance)
            wanted.append(oracle.judge(files))
            images.append(tmp_path / f"{number}.img")
            images[-1].write_bytes(oracle.make_volume(files))
        assert verdicts_on(images) == wanted
        seen.update(wanted)
    assert min(seen.values()) > 50, seen
