#!/usr/bin/python3
"""Whole-process times and peak memory of fontrix commands under several environments, the
environments taking turns run after run (a shared machine's speed drifts, so none gets the
quiet minutes alone); prints each case's median wall time and its peak resident memory.

    bench/whole_process.py [--runs 5] [--env NAME=VAR=VALUE,VAR2=...] [--unset NAME=VAR,...]
                           [--fresh-cache] [--no-warmup] -- COMMAND [ARG ...]

--env and --unset name an environment and what it sets or removes (repeatable; the default is
one environment, this one). With --fresh-cache every run gets an empty cache folder of its own
through --cache-dir (COMMAND must be the fontrix tool), so "index" pays for taking in every font.
"""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


def environments(args):
    envs = {}
    for given in args.env or []:
        name, _, assignments = given.partition("=")
        env = envs.setdefault(name, dict(os.environ))
        for assignment in filter(None, assignments.split(",")):
            var, _, value = assignment.partition("=")
            env[var] = value
    for given in args.unset or []:
        name, _, names = given.partition("=")
        env = envs.setdefault(name, dict(os.environ))
        for var in filter(None, names.split(",")):
            env.pop(var, None)
    return envs or {"as is": dict(os.environ)}


def timed(argv, env, cpu=None):
    """Wall seconds, peak resident MB, exit status and standard error of one whole process; its
    processor seconds (user and system) are appended to the list `cpu` when one is given.
    Standard error goes through a file, so a process that says a lot never blocks on a pipe."""
    with tempfile.TemporaryFile() as err:
        start = time.monotonic()
        process = subprocess.Popen(argv, env=env, stdout=subprocess.DEVNULL, stderr=err)
        _, status, usage = os.wait4(process.pid, 0)
        wall = time.monotonic() - start
        if cpu is not None:
            cpu.append(usage.ru_utime + usage.ru_stime)
        err.seek(0)
        said = err.read().decode("utf-8", "replace")
    return wall, usage.ru_maxrss / 1024.0, os.waitstatus_to_exitcode(status), said


def run_once(command, env, fresh_cache):
    folder = tempfile.mkdtemp(prefix="fontrix-bench-") if fresh_cache else None
    argv = [command[0]] + (["--cache-dir", folder] if folder else []) + command[1:]
    wall, peak, status, _ = timed(argv, env)
    if folder:
        shutil.rmtree(folder, ignore_errors=True)
    if status != 0:
        sys.exit("%s failed (exit %d)" % (" ".join(argv), status))
    return wall, peak


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--env", action="append", help="NAME=VAR=VALUE,...")
    parser.add_argument("--unset", action="append", help="NAME=VAR,...")
    parser.add_argument("--fresh-cache", action="store_true")
    parser.add_argument("--no-warmup", action="store_true", help="time every run (long commands)")
    parser.add_argument("command", nargs=argparse.REMAINDER)
    args = parser.parse_args()
    command = args.command[1:] if args.command[:1] == ["--"] else args.command
    if not command:
        parser.error("no command")
    envs = environments(args)
    results = {name: [] for name in envs}
    if not args.no_warmup:
        for name, env in envs.items():  # one untimed run each: files in the page cache
            run_once(command, env, args.fresh_cache)
    for _ in range(args.runs):
        for name, env in envs.items():
            results[name].append(run_once(command, env, args.fresh_cache))
    print("%s (median of %d runs)" % (" ".join(command), args.runs))
    for name, runs in results.items():
        print("  %-28s %8.3f s  peak %6.0f MB" % (name, statistics.median(w for w, _ in runs),
                                                  max(m for _, m in runs)))


if __name__ == "__main__":
    main()
