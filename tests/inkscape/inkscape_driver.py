#!/usr/bin/python3
"""Runs one Inkscape with its window up (inside xvfb-run) and closes the message boxes its
extensions raise: Inkscape shows what an extension writes to standard error in a modal box,
which nobody would close here, so Inkscape would wait for ever.

Usage: inkscape_driver.py LOG SECONDS INKSCAPE ARGS...

LOG is the file the extensions' interpreter (the tests' logging wrapper of Python) appends one
JSON line to per run; a run that wrote to standard error means a box to close. Inkscape is
stopped after SECONDS (exit status 124)."""
import json
import subprocess
import sys
import time


def runs_with_messages(log):
    try:
        with open(log) as stream:
            return sum(1 for line in stream if line.strip() and json.loads(line)["stderr"].strip())
    except FileNotFoundError:
        return 0


def close_boxes():
    """Escape to every window of Inkscape but its document window."""
    found = subprocess.run(["xdotool", "search", "--onlyvisible", "--class", "inkscape"], capture_output=True,
                           text=True).stdout.split()
    for window in found:
        name = subprocess.run(["xdotool", "getwindowname", window], capture_output=True, text=True).stdout.strip()
        if name.endswith("- Inkscape"):
            continue
        subprocess.run(["xdotool", "windowfocus", window], capture_output=True)
        subprocess.run(["xdotool", "key", "--clearmodifiers", "Escape"], capture_output=True)


def main():
    log, seconds, command = sys.argv[1], float(sys.argv[2]), sys.argv[3:]
    before = runs_with_messages(log)
    inkscape = subprocess.Popen(command)
    deadline = time.monotonic() + seconds
    while inkscape.poll() is None:
        if time.monotonic() > deadline:
            inkscape.kill()
            inkscape.wait()
            print("inkscape_driver: Inkscape did not finish within %g s" % seconds, file=sys.stderr)
            return 124
        # Once an extension has said something, its box may show at any moment, and other small
        # windows may be up: Escape goes to each of them until Inkscape is done.
        if runs_with_messages(log) > before:
            close_boxes()
        time.sleep(0.2)
    return inkscape.returncode


if __name__ == "__main__":
    sys.exit(main())
