"""The checks that a compiler makes. A result is kept by the content of everything it depends on,
so that an unchanged file costs nothing the next time.

Each check takes a Context and yields what is wrong.
"""
import concurrent.futures
import functools
import hashlib
import json
import os
import pathlib
import re
import subprocess

# Without -mgeneral-regs-only: clang then refuses the floating point of the library's headers.
KERNEL_FLAGS = ["-m32", "-march=i686", "-ffreestanding", "-std=gnu++20", "-fno-exceptions",
                "-fno-rtti", "-fno-threadsafe-statics", "-Wall", "-Wextra", "-Wshadow",
                "-Wnon-virtual-dtor", "-Werror", "-I."]


class Context:
    """The tree, the number of jobs, and the results of earlier runs in `cache`."""

    def __init__(self, tree, jobs, cache):
        self.tree = tree
        self.jobs = jobs
        self.cache = pathlib.Path(cache)
        self.cache.mkdir(parents=True, exist_ok=True)

    def run_all(self, paths, command_of, extra=()):
        """Runs command_of(path) for every path; yields what those that fail say, once."""
        seen = {""}
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            for output in pool.map(lambda path: self._run(path, command_of(path), extra), paths):
                if output not in seen:
                    seen.add(output)
                    yield output

    def _run(self, path, command, extra):
        mark = self.cache / self._key(path, command, extra)
        if mark.exists():
            return ""
        done = subprocess.run(command, cwd=self.tree.root, capture_output=True, text=True,
                              check=False)
        findings = findings_in(done.stdout + done.stderr, path) if done.returncode != 0 else ""
        if not findings:
            mark.touch()
        return findings

    def _key(self, path, command, extra):
        digest = hashlib.sha256(json.dumps(command).encode())
        digest.update(version_of(command[0]).encode())
        for name in [*self.tree.closure(path), *extra]:
            digest.update(name.encode())
            digest.update((self.tree.root / name).read_bytes())
        return digest.hexdigest()


@functools.cache
def version_of(program):
    return subprocess.run([program, "--version"], capture_output=True, text=True,
                          check=False).stdout


def findings_in(text, path):
    """What a tool says about the tree's own files, each finding once; what it says about the
    system's headers is not ours to change."""
    begins = re.compile(r"^(\S+?):\d+:\d+: (?:fatal )?(?:error|warning):", re.MULTILINE)
    starts = [match.start() for match in begins.finditer(text)] + [len(text)]
    if len(starts) == 1:
        return text.strip() or f"{path}: the tool failed without a word"
    findings = {}
    for start, end in zip(starts, starts[1:]):
        if not begins.match(text, start).group(1).startswith("/usr/"):
            finding = re.sub(r"\n\d+ \w+ (and \d+ \w+ )?generated\.\n", "\n", text[start:end])
            findings[finding.split("\n")[0]] = finding.strip()
    return "\n".join(findings.values())


def kernel_sources(context):
    return context.tree.select(".cpp", under="kernel/") + context.tree.select(".cpp", under="arch/")


def check_format(context):
    """clang-format agrees with the layout."""
    paths = context.tree.select(".h", ".cpp")
    yield from context.run_all(
        paths, lambda path: ["clang-format", "--dry-run", "-Werror", path], [".clang-format"])


def check_headers(context):
    """Each header of the kernel compiles alone."""
    headers = context.tree.select(".h", under="kernel/") + context.tree.select(".h", under="arch/")
    yield from context.run_all(
        headers, lambda path: ["g++", *KERNEL_FLAGS, "-mgeneral-regs-only", "-Wconversion",
                               "-fsyntax-only", "-x", "c++", "-include", path, os.devnull])


def check_thread_safety(context):
    """clang's analysis agrees with the annotations of guards.h."""
    yield from context.run_all(
        kernel_sources(context),
        lambda path: ["clang++", *KERNEL_FLAGS, "-Wthread-safety", "-fsyntax-only", path])


def check_tidy(context):
    """clang-tidy, by .clang-tidy."""
    yield from context.run_all(
        kernel_sources(context),
        lambda path: ["clang-tidy", "--quiet", path, "--", *KERNEL_FLAGS, "-Wno-error"],
        [".clang-tidy"])
