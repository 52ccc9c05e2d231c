"""A client of QEMU's machine protocol (QMP) over a unix socket.

As a program: `qmp.py SOCKET shot FILE` saves the VGA screen, as PNG if FILE ends in .png, else PPM;
`qmp.py SOCKET stop SECONDS` presses the power button and waits until the machine is gone.
"""
import json
import os
import socket
import sys
import time


class QmpError(Exception):
    """The machine refused a command, or is gone."""


class Qmp:
    """One connection; use as a context manager."""

    def __init__(self, path, timeout=20.0):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(timeout)
        self._socket.connect(path)
        self._lines = self._socket.makefile("r", encoding="utf-8")
        self.events = []  # asynchronous events, oldest first
        self._read()
        self.run("qmp_capabilities")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._lines.close()
        self._socket.close()

    def run(self, name, **arguments):
        """Runs one command and returns its result."""
        text = json.dumps({"execute": name, "arguments": arguments})
        self._socket.sendall(text.encode() + b"\n")
        while True:
            answer = self._read()
            if "event" in answer:
                self.events.append(answer)
            elif "error" in answer:
                raise QmpError(f"{name}: {answer['error']['desc']}")
            else:
                return answer["return"]

    def _read(self):
        line = self._lines.readline()
        if not line:
            raise QmpError("the machine closed the connection")
        return json.loads(line)

    def shot(self, path):
        """Saves the screen; QEMU writes the file, so the path is made absolute."""
        path = os.path.abspath(path)
        image = {"format": "png"} if path.endswith(".png") else {}
        self.run("screendump", filename=path, **image)


    def stop(self, seconds):
        """Presses the power button; fails when the machine still runs after `seconds`."""
        end = time.monotonic() + seconds
        try:
            self.run("system_powerdown")
            while True:
                self._socket.settimeout(max(end - time.monotonic(), 0.001))
                if not self._lines.readline():
                    return
        except TimeoutError:
            raise QmpError(f"the machine still runs after {seconds:g} s") from None
        except ConnectionError:
            return


def main():
    if len(sys.argv) != 4 or sys.argv[2] not in ("shot", "stop"):
        print(__doc__, file=sys.stderr)
        return 2
    try:
        with Qmp(sys.argv[1]) as qmp:
            if sys.argv[2] == "shot":
                qmp.shot(sys.argv[3])
            else:
                qmp.stop(float(sys.argv[3]))
    except (OSError, QmpError) as error:
        print(f"qmp: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
