#!/usr/bin/python3
"""Processes sharing one cache folder: N `fontrix index` at once on a fresh folder, repeated, and
the caches checked after each round: the similarity pair's two files and check sums agree, every
installed font is in each cache exactly once, and a further index computes nothing.

Usage: bench/concurrent_index.py [BUILD_DIR] [--processes 2 4] [--rounds 20]
"""
import argparse
import json
import os
import subprocess
import tempfile
import time


def check(tool, folder):
    """None when the caches in `folder` are whole and hold each used font once, else why not."""
    with open(os.path.join(folder, "NQ_sim_meta_sys.cch")) as f:
        lines = f.read().splitlines()
    records = os.path.getsize(os.path.join(folder, "NQ_sim_fea_sys.cch")) // 3072
    with open(os.path.join(folder, "NQ_sim_sums_sys.cch")) as f:
        sums = len(f.read().splitlines())
    names = lines[3::6]
    if len(lines) % 6 or records != len(names) or sums != len(names):
        return f"pair disagrees: {len(lines)} meta lines, {records} records, {sums} sums"
    if len(set(names)) != len(names):
        return "a font twice in the similarity cache"
    with open(os.path.join(folder, "FontFeatureCache.json")) as f:
        classified = [r["name"] for r in json.load(f)]
    fonts = [f["name"] for f in json.loads(tool("fonts", "--json").stdout)["fonts"]]
    if sorted(classified) != sorted(fonts):
        return "the feature cache does not hold each font once"
    again = json.loads(tool("index", "--json").stdout)["services"]
    if any(s["computed"] for s in again):
        return "a further index computed fonts again"
    return None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", nargs="?", default="build")
    parser.add_argument("--processes", type=int, nargs="+", default=[2, 4])
    parser.add_argument("--rounds", type=int, default=20)
    args = parser.parse_args()
    fontrix = os.path.join(args.build, "bin", "fontrix")
    env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}
    for n in args.processes:
        failures, started = [], time.time()
        for _ in range(args.rounds):
            with tempfile.TemporaryDirectory() as folder:
                command = [fontrix, "--cache-dir", folder, "index"]
                runs = [subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, env=env)
                        for _ in range(n)]
                # Anything said on stderr but the time taken is a warning or an error.
                said = [line for run in runs for line in run.communicate()[1].decode().splitlines()
                        if not line.startswith("fontrix: index took")]
                if any(run.returncode for run in runs) or said:
                    failures.append("; ".join(said) or "an index failed")
                    continue

                def tool(*more):
                    return subprocess.run([fontrix, "--cache-dir", folder, *more], capture_output=True, text=True,
                                          env=env)
                problem = check(tool, folder)
                if problem:
                    failures.append(problem)
        print(f"{n} processes x {args.rounds} rounds: {args.rounds - len(failures)} consistent, "
              f"{len(failures)} not ({time.time() - started:.0f} s)")
        for f in failures[:5]:
            print("  " + f)


if __name__ == "__main__":
    main()
