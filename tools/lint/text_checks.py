"""The checks that read the sources as text. Each takes a Tree and yields "path:line: what"."""
import re

MAX_COLUMNS = 100
MAX_FUNCTION_LINES = 70

# The floors, lowest first; of a file's patterns the one that stands last in the table counts.
FLOORS = (
    ("machine", (r"arch/x86/",)),
    ("base", (r"kernel/core/",)),
    ("store", (r"kernel/graph/causal(_schema)?(\.|/)",)),
    ("processes", (r"kernel/core/(task|sched|mutex|smp|elf|syscall|cap)",
                   r"kernel/core/(tempcap|liveness|migrate)")),
    ("drivers", (r"kernel/drivers/",)),
    ("storage and network", (r"kernel/fs/", r"kernel/net/")),
    ("graph", (r"kernel/graph/(?!causal(_schema)?(\.|/))",)),
    ("applications", (r"kernel/apps/",)),
    ("start-up", (r"kernel/core/main\.",)),
)

# The machine's own sources may use what describes the compiler, the base's hooks and the image.
MACHINE_MAY_USE = re.compile(r"kernel/core/")

# Who may mask interrupts by hand; everybody else uses a guard of kernel/core/guards.h.
MASKING = re.compile(r"\bcpu_(cli|sti)\(")
MAY_MASK = (
    "kernel/core/guards.h",
    "kernel/core/main.cpp",           # interrupts go on, once
    "kernel/core/task/schedule.cpp",  # a new task begins with interrupts on
    "kernel/core/assert.cpp",         # for good
    "kernel/apps/surgeon.cpp",        # for good
)

# Who may touch ports and write instructions; an empty instruction only orders the compiler.
HARDWARE = re.compile(r"\b(in|out)[bwl]\(|\basm\b(?! volatile\(\"\")(?!\(\"\")")
MAY_TOUCH_HARDWARE = re.compile(
    r"arch/|kernel/drivers/|kernel/core/(interrupt|x86|smp|task)|kernel/apps/surgeon"
    r"|kernel/core/(string|noise)/")  # instructions that C++ cannot say, no devices

# Markers of unfinished work, and words about how the code came about instead of what it is.
# Published standards may be named.
UNWANTED = re.compile(
    r"\b(TODO|FIXME|XXX)\b"
    r"|(?<!Multiboot )(?<!ACPI )(?<!PCI )(?<!virtio )(?<!ELF )\b[Ss]pec(ification)?s?\b"
    r"|\bPart \d+(\.\d+)?\b|\b[Ii]ssue #?\d+\b")


def floor_of(path):
    """The index of the floor that `path` belongs to; None outside the kernel."""
    found = None
    for index, (_, patterns) in enumerate(FLOORS):
        if any(re.match(pattern, path) for pattern in patterns):
            found = index
    return found


def check_floors(tree):
    """An include points down, or stays on its floor."""
    for path in tree.select(".h", ".cpp"):
        own = floor_of(path)
        if own is None:
            continue
        for name in tree.includes(path):
            floor = floor_of(name)
            if floor is None:
                yield f"{path}: includes {name}, which is no part of the kernel"
            elif floor > own and not (own == 0 and path.endswith(".cpp")
                                      and MACHINE_MAY_USE.match(name) and floor == 1):
                yield f"{path}: {FLOORS[own][0]} includes {name} of {FLOORS[floor][0]} above"


def check_cycles(tree):
    """No header includes itself, directly or not."""
    for path in tree.select(".h"):
        for name in tree.includes(path):
            if path in tree.closure(name):
                yield f"{path}: is included again by its own {name}"


def lines_with(tree, pattern, is_allowed):
    """The kernel's lines that match `pattern`, outside the files that may have them."""
    for path in tree.select(".h", ".cpp", under="kernel/"):
        if not is_allowed(path):
            for number, line in enumerate(tree.text(path).splitlines(), 1):
                if pattern.search(line.split("//")[0]):
                    yield f"{path}:{number}: {line.strip()}"


def check_masking(tree):
    """Interrupts are masked by scopes."""
    yield from lines_with(tree, MASKING, lambda path: path in MAY_MASK)


def check_hardware(tree):
    """Ports and instructions stay low."""
    yield from lines_with(tree, HARDWARE, MAY_TOUCH_HARDWARE.match)


def check_columns(tree):
    for path in tree.select(".h", ".cpp", ".S", ".py", ".sh"):
        for number, line in enumerate(tree.text(path).splitlines(), 1):
            if len(line) > MAX_COLUMNS:
                yield f"{path}:{number}: {len(line)} columns, more than {MAX_COLUMNS}"


def check_words(tree):
    """No unwanted word in code or prose."""
    for path in tree.files + tree.prose:
        if path.startswith("tools/lint/"):
            continue
        for number, line in enumerate(tree.text(path).splitlines(), 1):
            word = UNWANTED.search(line)
            if word:
                yield f"{path}:{number}: '{word.group(0)}' has no place here"


# A function's body as clang-format lays it out: its head ends in "{" and begins at some indent
# with a name and "("; its end is the "}" at the same indent.
HEAD = re.compile(r"^(\s*)(?!(?:if|for|while|switch|else|do|return|namespace)\b)"
                  r"[A-Za-z_~\[][^;={}]*\(")


def check_functions(tree):
    for path in tree.select(".h", ".cpp"):
        yield from long_functions(path, tree.text(path).splitlines())


def long_functions(path, lines):
    head, indent = None, ""
    for number, line in enumerate(lines, 1):
        if head is None:
            begins = HEAD.match(line)
            if begins and opens_body(lines, number - 1):
                head, indent = number, begins.group(1)
                if line.rstrip().endswith("}"):
                    head = None
        elif line.startswith(indent + "}") and not line.startswith(indent + "} "):
            if number - head + 1 > MAX_FUNCTION_LINES:
                yield (f"{path}:{head}: a function of {number - head + 1} lines,"
                       f" more than {MAX_FUNCTION_LINES}")
            head = None


def opens_body(lines, index):
    """Whether the statement that begins at `index` opens a body before it ends."""
    for line in lines[index:index + 10]:
        text = line.split("//")[0].rstrip()
        if text.endswith("{") or text.endswith("}"):
            return True
        if text.endswith(";") or not text:
            return False
    return False
