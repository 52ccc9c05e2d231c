"""A scheduled command kills its task: from the symptom to its cause by every tool."""
import re


def first(pattern, text):
    found = re.search(pattern, text)
    assert found, f"no {pattern!r} in {text!r}"
    return found.group(1)


def test_every_tool_tells_the_same_story_of_a_task_that_died(machine):
    one = machine(disk=False, net=False)
    with one.expect_fault():
        one.send("schedule 2 crash stack\r")
        one.wait_for("Stack overflow in 'sched_app' (pid ")
        pid = first(r"(\d+)", one.wait_for(")"))
        one.send("\r")
        one.wait_prompt()
    one.wait_until(lambda: int(first(r"faults +: (\d+) recent", one.run("mood"))) >= 4,
                   "the faults of schedule, executed, fired and cmd")
    assert "sched_app" not in one.run("digest tasks")

    one.run("search rebuild")
    fault = first(rf"#(\d+) .* stack_overflow pid={pid} name=sched_app",
                  one.run("search stack_overflow"))
    cause = first(r"#(\d+) .* schedule: crash stack at T\+2", one.run("search schedule AND crash"))
    chain = re.findall(r"\[(\d+)\]", one.run(f"why {fault}"))
    to_cause = chain[:chain.index(cause) + 1]
    path = one.run(f"cpath {cause} {fault}")
    assert re.findall(r"\[(\d+)\]", path) == to_cause[::-1]
    one.run("cdb break text stack_overflow")
    assert f"hit at event #{fault}" in one.run("cdb run")
    assert re.findall(r"#\d+ +#(\d+)", one.run("cdb bt"))[:len(to_cause) - 1] == to_cause[1:]

    suspects = re.findall(r"% +#(\d+)", one.run(f"blame {fault}"))
    assert suspects[0] == cause
    fixed = one.run(f"whatif fix {fault}")
    assert f"suspected root cause: #{cause} " in fixed and f"    [{fault}] sched: " in fixed
    gone = int(first(r"-> (\d+) events eliminated", one.run(f"whatif summary {cause}")))
    assert gone >= len(to_cause) - 1
    assert f"  affected:  {gone} (would not have happened)" in fixed

    reached = int(first(r"FOUND: tick (\d+)", one.run(f"cbisect events {fault}")))
    assert reached == int(first(r"\(tick (\d+)\)", one.run("cdb print")))
    receipt = one.run(f"attest {fault}")
    assert f"stack_overflow pid={pid} name=sched_app (tick {reached}" in receipt
    assert f"[{fault}] " in one.run(f"prov task {pid}")

    # Lines that wait, and the next one, find a new task to run in, which may as much.
    tick = int(first(r"(\d+) ticks", one.run("uptime")))
    one.run(f"schedule {tick + 120} echo alive again")
    with one.expect_fault():
        one.run(f"schedule {tick + 100} crash stack")
        one.wait_for(re.compile(r"\nalive again"))
