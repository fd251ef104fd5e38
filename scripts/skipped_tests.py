#!/usr/bin/python3
"""Says which tests of the last CTest run were skipped, and why, from CTest's log: a whole test
that exited 77 after printing "skipped: REASON", and the cases Python's unittest skipped (run
verbosely, it logs "... skipped 'REASON'"). Prints nothing when nothing was skipped.

Usage: skipped_tests.py build/Testing/Temporary/LastTest.log
"""
import re
import sys


def skips(log):
    test = None
    for line in log.splitlines():
        started = re.match(r"\d+/\d+ Testing: (\S+)", line)
        if started:
            test = started.group(1)
            continue
        whole = re.match(r"skipped: (.*)", line)
        case = re.match(r"(test\w+) \(.*\) \.\.\. skipped '(.*)'$", line)
        if whole:
            yield test, whole.group(1)
        elif case:
            yield test, case.group(1) + ": " + case.group(2)


def main(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            log = f.read()
    except OSError:
        return
    found = list(skips(log))
    if found:
        print("Skipped (%d):" % len(found))
        for test, why in found:
            print("  %s: %s" % (test, why))


if __name__ == "__main__":
    main(sys.argv[1])
