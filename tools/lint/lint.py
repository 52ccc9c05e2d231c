"""Checks the sources: prints "OK name" or "FAIL name" with what is wrong; exits 1 on a failure."""
import argparse
import pathlib
import sys
import time

import compiler_checks
import text_checks
from sources import Tree

MAX_SHOWN = 40  # findings of one check


def all_checks(tree, context):
    """Name and generator of every check, the fast ones first."""
    return (
        ("includes-point-down", lambda: text_checks.check_floors(tree)),
        ("no-include-cycles", lambda: text_checks.check_cycles(tree)),
        ("masking-is-a-scope", lambda: text_checks.check_masking(tree)),
        ("hardware-stays-low", lambda: text_checks.check_hardware(tree)),
        ("line-length", lambda: text_checks.check_columns(tree)),
        ("function-length", lambda: text_checks.check_functions(tree)),
        ("words", lambda: text_checks.check_words(tree)),
        ("clang-format", lambda: compiler_checks.check_format(context)),
        ("headers-stand-alone", lambda: compiler_checks.check_headers(context)),
        ("thread-safety", lambda: compiler_checks.check_thread_safety(context)),
        ("clang-tidy", lambda: compiler_checks.check_tidy(context)),
    )


def main():
    parser = argparse.ArgumentParser(prog="vorn lint", description=__doc__)
    parser.add_argument("-k", metavar="NAME", default="", help="only checks whose names hold NAME")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--root", default=pathlib.Path(__file__).resolve().parents[2])
    options = parser.parse_args()

    tree = Tree(options.root)
    context = compiler_checks.Context(tree, options.jobs, tree.root / "build" / "lint")
    failed = False
    for name, check in all_checks(tree, context):
        if options.k not in name:
            continue
        start = time.monotonic()
        findings = list(check())
        print(f"{'FAIL' if findings else 'OK'} {name} ({time.monotonic() - start:.1f} s)")
        for finding in findings[:MAX_SHOWN]:
            print("    " + finding.replace("\n", "\n    "))
        failed = failed or bool(findings)
        sys.stdout.flush()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
