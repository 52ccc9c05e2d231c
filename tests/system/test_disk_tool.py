"""The disk tool: the files of an image on the host, beside the machine that uses the same image."""
import hashlib
import os
import random
import subprocess

import pytest

from rig import Disk, ROOT

TOOL = ROOT / "build" / "tools" / "vorn-disk"
SECTOR = 512
FILE_MAX = 8460288


@pytest.fixture(scope="session", autouse=True)
def tool():
    """The script builds the tool before it runs it."""
    subprocess.run([ROOT / "vorn", "disk", "--help"], check=True, capture_output=True, timeout=300)


class Image:
    """An image, and the tool run on it."""

    def __init__(self, path):
        self.path = path

    def run(self, *words, status=0, data=None, shell=None):
        """Runs the tool; returns its output, and fails when its exit code is another."""
        command = [str(TOOL), str(self.path), *map(str, words)]
        if shell:
            command = ["bash", "-c", shell, "bash", *command]
        done = subprocess.run(command, input=data, capture_output=True, timeout=120, check=False)
        assert done.returncode == status, (words, done.stdout[-500:], done.stderr)
        assert status == 0 or done.stderr.startswith((b"vorn disk: ", b"[")), done.stderr
        return done.stdout

    def text(self, *words, **options):
        return self.run(*words, **options).decode()

    def digest(self):
        return hashlib.sha256(self.path.read_bytes()).hexdigest()


@pytest.fixture
def image(tmp_path):
    return Image(tmp_path / "disk.img")


@pytest.mark.parametrize("size, bytes_", [
    ("1000s", 1000 * SECTOR), ("64M", 64 << 20), ("4G", 4 << 30), ("5G", 5 << 30),
    ("4355s", 4355 * SECTOR)])
def test_what_is_put_is_got(image, tmp_path, size, bytes_):
    """On volumes of every size, with files around the edges of their block pointers."""
    image.run("mkfs", size)
    assert image.path.stat().st_size == bytes_
    assert image.path.stat().st_blocks * SECTOR < 1 << 20, "sparse"
    image.run("mkdir", "-p", "a/b")
    random.seed(size)
    room = int(image.text("df").split()[7]) * SECTOR
    files = {}
    for length in (0, 1, 511, 6144, 6145, 71680, 71681, FILE_MAX):
        if 2 * length + sum(map(len, files.values())) < room:
            files[f"/a/b/{length}"] = random.randbytes(length)
    for path, data in files.items():
        image.run("put", "-", path, data=data)
        assert image.run("get", path, "-") == data
        (tmp_path / "in").write_bytes(data[::-1])
        image.run("put", tmp_path / "in", path)
        image.run("get", path, tmp_path / "out")
        assert (tmp_path / "out").read_bytes() == data[::-1]
    assert image.text("ls", "/a/b").split() == sorted(path[5:] for path in files)
    image.run("fsck")
    image.run("put", tmp_path / "in", "/a")
    image.run("rm", "a/in")
    image.run("rm", "-r", "a")
    assert image.text("tree") == "/\n0 directories, 0 files\n"
    assert image.text("df").split()[6] == "0"


def test_what_cannot_be_done_leaves_the_image_as_it_was(image, tmp_path):
    image.run("ls", status=1)
    assert not image.path.exists()
    image.run("mkfs", "258s", status=1)
    assert os.listdir(tmp_path) == []
    image.run("mkfs", "1000s")
    image.run("put", "-", "/f", data=b"kept")
    image.run("mkdir", "d")
    before = image.digest()
    for words in (["get", "/nope"], ["get", "/d"], ["get", "/f", "/dev/full"], ["ls", "/nope"],
                  ["rm", "/"], ["rm", "/nope"], ["mkdir", "/f"], ["mkdir", "/no/such"], ["mkfs"],
                  ["mkfs", "2000s"], ["put", "/nope"], ["put", "-", "/d"], ["stat", "/nope"],
                  ["put", "-", "/f/x"], ["put", "-", "/" + 64 * "n"]):
        image.run(*words, status=1, data=b"")
    image.run("put", "-", "/f", data=bytes(742 * SECTOR), status=1)
    image.run("put", "-", "/g", data=bytes(FILE_MAX + 1), status=1)
    for words in ([], ["lss"], ["get"], ["put", "-"], ["rm"], ["fsck", "now"], ["df", "x"],
                  ["ls", "a", "b"], ["mkfs", "1T"], ["mkfs", "99999999999G"]):
        image.run(*words, status=2)
    image.run("get", "/f", "-", status=1, shell='"$@" >/dev/full')
    assert image.digest() == before
    image.run("put", "-", "/g\n", data=b"")  # a listing cannot show it, and it leads nowhere
    image.run("tree", status=1)
    image.run("rm", "/g\n")
    assert sorted(os.listdir(tmp_path)) == ["disk.img"]
    # What fits once the old contents are gone is stored.
    image.run("put", "-", "/f", data=bytes(700 * SECTOR))
    image.run("put", "-", "/f", data=b"y" * 720 * SECTOR)
    assert image.run("get", "/f", "-") == b"y" * 720 * SECTOR
    image.run("mkfs", "--force")
    assert image.text("ls") == ""
    # What another filesystem may have left is not overwritten unasked.
    image.path.write_bytes(bytes(1080) + b"\x53\xef" + bytes(1 << 20))
    image.run("mkfs", status=1)
    image.run("mkfs", "--force")


def test_a_full_host_filesystem_leaves_the_image_as_it_was(tmp_path):
    """The image lies on a filesystem of 2 MB, in a namespace of its own."""
    script = f"""mount -t tmpfs -o size=2m none {tmp_path} || exit 77
        cd {tmp_path} && I=disk.img T={TOOL}
        $T $I mkfs 64M && echo one | $T $I put - /f && $T $I mkdir /d || exit 1
        before=$(sha256sum <$I)
        head -c 4000000 /dev/urandom | $T $I put - /d/big && exit 2
        [ "$before" = "$(sha256sum <$I)" ] && $T $I fsck && [ "$($T $I get /f -)" = one ] || exit 3
        head -c 1000000 /dev/urandom | $T $I put - /d/big && head -c 900000 /dev/urandom >fill
        $T $I get /d/big out && exit 4
        ls | grep -q out && exit 5 || exit 0"""
    done = subprocess.run(["unshare", "-rm", "bash", "-c", script], capture_output=True, text=True,
                          timeout=60, check=False)
    if done.returncode == 77 or "unshare" in done.stderr:
        pytest.skip("no namespace to mount in")
    assert done.returncode == 0, (done.returncode, done.stderr)


def test_damage_is_reported_and_the_bitmap_repaired(image):
    image.run("mkfs", "1000s")
    for name in "abc":
        image.run("put", "-", f"/{name}", data=name.encode() * 3000)
    disk = Disk(path=image.path)
    sound = image.path.read_bytes()
    # The bitmap's first byte: blocks in use are free, a free one is not.
    disk.write(SECTOR, b"\x00")
    assert b"WARNING: bitmap has" in image.run("fsck", status=1)
    assert disk.read(SECTOR, 1) == b"\x00", "a check changes nothing"
    assert image.run("get", "/a", "-") == b"a" * 3000
    image.run("fsck", "repair")
    assert image.path.read_bytes() == sound
    # Two files with the same block, a size without blocks, a parent that is none.
    first, second = 3 * SECTOR, 4 * SECTOR  # inodes 1 and 2
    disk.write(second + 8, disk.read(first + 8, 4))
    assert b"referenced more than once" in image.run("fsck", status=1)
    assert b"more than once" in image.run("fsck", "repair", status=1)
    disk.write(second + 4, b"\xff\xff\xff\xff")
    disk.write(second + 56, b"\x99")
    assert b"exceeds max" in image.run("fsck", status=1)
    image.run("ls")
    # Superblocks that lie, and none.
    for offset, lie, said in ((28, b"\x02", b"invalid superblock"),
                              (0, b"\x00", b"holds no volume")):
        disk.write(offset, lie)
        done = subprocess.run([TOOL, image.path, "ls"], capture_output=True, check=False)
        assert done.returncode == 1 and said in done.stderr

def test_an_image_in_use_is_refused_and_then_shared(image, machine):
    image.run("mkfs", "64M")
    image.run("put", "-", "/from-host", data=b"hello machine\n")
    one = machine(net=False, disk=Disk(path=image.path))
    assert one.run("diskcat /from-host") == "hello machine\n"
    for words in (["ls"], ["put", "-", "/x"], ["mkfs", "--force"]):
        image.run(*words, status=1, data=b"")
    one.run("diskwrite /from-guest hello host")
    one.run("diskfill /big 8M")
    hashed = one.run("diskhash /big").split()[0]
    one.close()
    assert image.text("get", "/from-guest", "-") == "hello host"
    assert hashlib.blake2s(image.run("get", "/big", "-")).hexdigest() == hashed
    image.run("fsck")
