"""Fixtures of the system tests. A failing test leaves the transcripts of its machines in
build/test-logs, named after the test."""
import re

import pytest

from rig import LOGS, Machine, MachineFailed


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    item.has_failed = getattr(item, "has_failed", False) or report.failed


@pytest.fixture
def machine(request, tmp_path):
    """Boots machines: machine(memory=64, disk=False, ...) with Machine's options, and waits for
    the first prompt unless prompt=False. Each has a fresh disk unless it is given that of a closed
    machine: machine(disk=one.disk). All end with the test."""
    started = []

    def boot(prompt=True, **options):
        folder = tmp_path / f"machine-{len(started)}"
        folder.mkdir()
        one = Machine(folder=folder, **options)
        started.append(one)
        if prompt:
            one.wait_prompt()
        return one

    yield boot

    complaints = []
    for one in started:
        try:
            one.close()
        except MachineFailed as failure:
            complaints.append(str(failure))
    if complaints or request.node.has_failed:
        keep_transcripts(request.node.nodeid, started)
    if complaints:
        pytest.fail("\n".join(complaints), pytrace=False)


def keep_transcripts(test, machines):
    name = re.sub(r"[^\w.-]+", "-", test.split("/")[-1])
    LOGS.mkdir(parents=True, exist_ok=True)
    for index, one in enumerate(machines):
        path = LOGS / f"{name}-{index}.serial.log"
        path.write_text(one.transcript, encoding="utf-8")
