"""The offline auditor, held against an independent judge."""
import json
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


def runs(*lengths):
    """Records with identifiers from 1 on, a list for each segment."""
    number, out = 0, []
    for length in lengths:
        out.append([oracle.make_record(number + i + 1, number + i + 9, 3 * i, parents=(number + i,))
                    for i in range(length)])
        number += length
    return out


@pytest.fixture
def image_of(tmp_path):
    """Makes a volume that holds these files; returns its path."""
    def make(files):
        image = tmp_path / "disk.img"
        image.unlink(missing_ok=True)
        assert tool("disk", image, "mkfs", "1000s").returncode == 0
        assert tool("disk", image, "mkdir", "/causal").returncode == 0
        for path, data in files.items():
            (tmp_path / "file").write_bytes(data)
            assert tool("disk", image, "put", tmp_path / "file", path).returncode == 0
        return image
    return make


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
    assert "no volume" in tool("audit", tmp_path / "zeros").stderr
    # The second segment is gone: only what was seen before tells.
    files = {path: data for path, data in files.items() if "00000002" not in path}
    image = image_of(files)
    assert tool("audit", image).returncode == 0
    done = tool("audit", image, "--state", tmp_path / "seen")
    assert done.returncode == 1 and "its tail was removed" in done.stdout


def test_agrees_with_the_independent_judge_on_random_damage(image_of):
    image = image_of(oracle.make_journal(runs(16, 1, 2, 7), SEED))
    sound = bytearray(image.read_bytes())
    places = oracle.place_files(sound)
    seed = random.randrange(1 << 32)
    print("seed", seed)
    chance = random.Random(seed)
    for _ in range(400):
        damaged = bytearray(sound)
        for _ in range(chance.choice([1, 1, 1, 2, 9])):
            path = chance.choice(sorted(places))
            blocks, size = places[path]
            at = chance.randrange(size)
            damaged[blocks[at // 512] * 512 + at % 512] ^= chance.randrange(1, 256)
        image.write_bytes(damaged)
        assert tool("audit", image).returncode == oracle.judge(oracle.read_volume(damaged))


def test_who_recomputes_everything_but_the_signature_is_found_out(image_of):
    honest = runs(16, 4)
    files = oracle.make_journal(honest, SEED)
    forged = [list(records) for records in honest]
    forged[0][3] = oracle.make_record(4, 12, 9, desc=b"nothing happened", parents=(3,))
    for path, data in oracle.make_journal(forged, SEED).items():
        if not path.endswith(".sig"):
            files[path] = data
    done = tool("audit", image_of(files))
    assert done.returncode == 1
    assert "seg-00000001.jnl has a signature that does not verify" in done.stdout
