"""Actors as a user meets them."""
import re


def rows(text):
    """What `actors` says: messages in, out and in the mailbox, by name."""
    found = re.findall(r"^ +\d+  (\S+) +local +- +(\d+) +(\d+)  (\d+)/64$", text, re.M)
    return {name: tuple(map(int, numbers)) for name, *numbers in found}


def test_a_message_goes_from_the_shell_to_an_actor_and_shows_its_cause(machine):
    one = machine()
    assert one.run("actors").endswith("Total: 6 active actors\n")
    assert one.run("routes").splitlines()[2:4] == [
        "  dead-letter          local-first  L(1)", "  kernel               local-first  L(2)"]
    assert one.run("send kernel hello   there") == "Sent 11 bytes to 'kernel'\n"
    assert one.run("send nobody hi") == "send: actor 'nobody' not found\n"
    assert rows(one.run("actors"))["kernel"] == (1, 1, 1)
    assert rows(one.run("actors"))["shell"] == (0, 2, 0)
    assert re.fullmatch(r"\[type=1 from=6 t=\d+\] hello there\n", one.run("recv kernel"))
    sent, received = (re.search(rf"\[(\d+)\][^\n]*{what}", one.run("events actor")).group(1)
                      for what in ("send to=kernel", "recv name=kernel"))
    path = one.run(f"cpath {sent} {received}")
    assert "recv name=kernel" in path, path
    assert re.search(r"cmd: send", one.run(f"trace {received}"))
    assert re.fullmatch(r"\[type=4294901762 from=6 t=\d+\] nobody\?\n", one.run("recv dead-letter"))
    map_text = one.run("actormap")
    assert "  shell          → kernel          (1 msgs)\n" in map_text
    assert "Dead-letter: 1\n" in map_text and re.search(r"dead-letter$", map_text, re.M)
    assert one.run("actors payload-test").endswith(
        "PASS send=actor.send recv=actor.recv delivery=yes\n")
    for n in range(64):
        one.run(f"send net {n}")
    assert one.run("send net 65") == "send: mailbox full for 'net'\n"


def test_watching_and_pinging(machine):
    one = machine()
    assert one.run("watch fs") == "watching 'fs' (id 4)\n"
    text = one.run("aping fs 3")
    assert text.startswith("aping fs (id 4, local)\n")
    assert "\n3 sent, 3 delivered, min/avg/max " in text
    assert rows(one.run("actors"))["fs"] == (3, 0, 0)
    for line, answer in {
            "watch nobody": "actor 'nobody' not found\n",
            "watch": "usage: watch <actor_name>\n",
            "send kernel": "Usage: send <actor_name> <message...>\n",
            "recv net": "recv: no messages for 'net'\n",
            "recv nobody": "recv: actor 'nobody' not found\n",
            "aping fs 33": "aping: invalid count '33' (1 to 32)\n"}.items():
        assert one.run(line) == answer, line
