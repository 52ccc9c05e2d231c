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
                "-fno-rtti", "-fno-threadsafe-statics", "-Wall", "-Wextra", "-Wconversion",
                "-Wshadow", "-Wnon-virtual-dtor", "-Werror", "-I."]


class Context:
    """The tree, the number of jobs, and the results of earlier runs in `cache`."""

    def __init__(self, tree, jobs, cache):
        self.tree = tree
        self.jobs = jobs
        self.cache = pathlib.Path(cache)
        self.cache.mkdir(parents=True, exist_ok=True)

    def run_all(self, paths, command_of, extra=()):
        """Runs command_of(path) for every path; yields the output of those that fail."""
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            for output in pool.map(lambda path: self._run(path, command_of(path), extra), paths):
                if output:
                    yield output

    def _run(self, path, command, extra):
        mark = self.cache / self._key(path, command, extra)
        if mark.exists():
            return ""
        done = subprocess.run(command, cwd=self.tree.root, capture_output=True, text=True,
                              check=False)
        if done.returncode == 0:
            mark.touch()
            return ""
        return tidy_output(done.stdout + done.stderr) or f"{path}: {command[0]} failed"

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


def tidy_output(text):
    noise = re.compile(r"^\d+ (warnings?|errors?)[a-z0-9 ]* (generated|treated)|^Suppressed ")
    return "\n".join(line for line in text.splitlines() if not noise.search(line)).strip()


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
        headers, lambda path: ["g++", *KERNEL_FLAGS, "-mgeneral-regs-only", "-fsyntax-only", "-x",
                               "c++", "-include", path, os.devnull])


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
