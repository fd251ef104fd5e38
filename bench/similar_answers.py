#!/usr/bin/python3
"""What `fontrix similar --other-families` answers over every installed face, as a designer meets
it: of each face's first five answers of other families, how many share its slant (upright or
not) and lie within one weight step (fontconfig weight within 30); for the faces that have a twin
of another family (the same letters under another name, by the letter-likeness teacher drawing
the installed faces: distance under 1), how often the twin is the first answer; and the time a
whole `fontrix similar` process takes on a warm cache.

Usage: bench/similar_answers.py [BUILD_DIR] [--cache DIR] [--data DIR]
  BUILD_DIR: default build; --cache: the module's cache folder (default a temporary one, indexed
  first); --data: another data folder (FONTRIX_DATA_DIR), to measure retrained vectors.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

from fontrix_training import letter_likeness

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

TWIN = 1.0  # teacher units: the same letters under another name


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build", nargs="?", default="build")
    parser.add_argument("--cache")
    parser.add_argument("--data")
    args = parser.parse_args()
    fontrix = os.path.join(args.build, "bin", "fontrix")
    env = {**os.environ, "FONTRIX_CACHE_DIR": args.cache or tempfile.mkdtemp(prefix="fontrix-similar-")}
    if args.data:
        env["FONTRIX_DATA_DIR"] = args.data

    def tool(*words):
        return subprocess.run([fontrix, *words], capture_output=True, text=True, env=env)

    started = time.time()
    indexed = tool("index", "--disable", "recognition")
    if indexed.returncode != 0:
        sys.exit(f"fontrix index failed: {indexed.stderr}")
    print(f"indexed in {time.time() - started:.1f} s")
    fonts = json.loads(tool("--json", "fonts").stdout)["fonts"]

    host = os.path.join(args.build, "lib", "libfontrix_host.so")
    drawn, cells, advances, _ = letter_likeness.draw_faces([f["name"] for f in fonts], host)
    vectors = letter_likeness.letter_vectors(cells, advances)
    vectors -= vectors.mean(0)
    row = {n: i for i, n in enumerate(drawn)}

    def distance(a, b):
        return float(np.linalg.norm(vectors[row[a]] - vectors[row[b]]))

    slant = weight = answered = 0
    twins = twin_first = 0
    times, misses = [], []
    for face in fonts:
        t = time.perf_counter()
        r = tool("--json", "similar", face["name"], "--other-families", "--limit", "5")
        times.append(time.perf_counter() - t)
        if r.returncode != 0:
            print(f"{face['name']}: {r.stderr.strip()}")
            continue
        results = json.loads(r.stdout)["results"]
        for answer in results:
            answered += 1
            slant += (answer["slant"] > 0) == (face["slant"] > 0)
            weight += abs(answer["weight"] - face["weight"]) <= 30
        if face["name"] not in row or not results:
            continue
        others = [f["name"] for f in fonts if f["family"] != face["family"] and f["name"] in row]
        if any(distance(face["name"], o) < TWIN for o in others):
            twins += 1
            first = [results[0]["name"]] + results[0].get("same_outlines", [])
            if any(n in row and distance(face["name"], n) < TWIN for n in first):
                twin_first += 1
            else:
                misses.append(f"{face['name']} -> {results[0]['name']}")
    times.sort()
    print(f"{len(fonts)} faces, {answered} answers of other families")
    print(f"slant shared: {100 * slant / answered:.1f} %; within one weight step: {100 * weight / answered:.1f} %")
    print(f"twin first: {twin_first} of {twins} faces with a twin ({100 * twin_first / max(1, twins):.1f} %)")
    if misses:
        print("  missed: " + "; ".join(misses[:20]))
    print(f"fontrix similar, whole process: median {1000 * statistics.median(times):.0f} ms, "
          f"95th percentile {1000 * times[int(0.95 * (len(times) - 1))]:.0f} ms, max {1000 * times[-1]:.0f} ms")


if __name__ == "__main__":
    main()
