#!/usr/bin/python3
"""What `fontrix similar --other-families` answers over every installed face, as a designer meets
it: of each face's first five answers of other families, how many share its slant (upright or
not), lie within one weight step (fontconfig weight within 30) and share its primary style class
(the corpus labels' for faces of the corpus, else the hand list of bench/class_answers.tsv; faces
neither names are not judged), per class of the face asked about (with the slant and weight
figures of that class's faces), and for each class how often the first answer has it when another
family of the class is installed; for the faces that have a twin
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

from fontrix_training import CORPUS, letter_likeness, tab_rows

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

TWIN = 1.0  # teacher units: the same letters under another name
HAND_LIST = os.path.join(os.path.dirname(os.path.abspath(__file__)), "class_answers.tsv")


def primary_classes(fonts):
    """unique name -> primary style class of the installed faces the labels or the hand list name."""
    labels = {row[0]: row[1].split(",")[0] for _, row in tab_rows(os.path.join(CORPUS, "labels.tsv"))
              if row[0] != "unique_name"}
    hand = {row[0]: row[1].split(",")[0] for _, row in tab_rows(HAND_LIST) if len(row) > 1 and row[1]}
    primary = {}
    for f in fonts:
        c = labels.get(f["name"]) or hand.get(f["family"])
        if c:
            primary[f["name"]] = c
    return primary


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

    primary = primary_classes(fonts)
    kind = {}  # class of the face asked about -> [answers judged, answers of its class]
    kind_first = {}  # class -> [faces whose class another installed family has, first answer of it]
    kept = {}  # class of the face asked about -> [answers, slant shared, within one weight step]
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
        own = primary.get(face["name"])
        for answer in results:
            answered += 1
            same_slant = (answer["slant"] > 0) == (face["slant"] > 0)
            same_weight = abs(answer["weight"] - face["weight"]) <= 30
            slant += same_slant
            weight += same_weight
            if own:
                k = kept.setdefault(own, [0, 0, 0])
                k[0] += 1
                k[1] += same_slant
                k[2] += same_weight
            if own and answer["name"] in primary:
                k = kind.setdefault(own, [0, 0])
                k[0] += 1
                k[1] += primary[answer["name"]] == own
        if own and results and any(primary.get(f["name"]) == own for f in fonts if f["family"] != face["family"]):
            k = kind_first.setdefault(own, [0, 0])
            k[0] += 1
            k[1] += primary.get(results[0]["name"]) == own
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
    judged, same = sum(k[0] for k in kind.values()), sum(k[1] for k in kind.values())
    print(f"primary class shared: {100 * same / max(1, judged):.1f} % of {judged} answers judged "
          f"({len(primary)} of {len(fonts)} faces have a known class)")
    for c in sorted(kind):
        first = kind_first.get(c, [0, 0])
        n, same_slant, same_weight = kept.get(c, [0, 0, 0])
        print(f"  {c}: {kind[c][1]} of {kind[c][0]} answers of its class; first answer of its class for "
              f"{first[1]} of {first[0]} faces whose class another installed family has; slant "
              f"{100 * same_slant / max(1, n):.0f} %, weight {100 * same_weight / max(1, n):.0f} %")
    print(f"twin first: {twin_first} of {twins} faces with a twin ({100 * twin_first / max(1, twins):.1f} %)")
    if misses:
        print("  missed: " + "; ".join(misses[:20]))
    print(f"fontrix similar, whole process: median {1000 * statistics.median(times):.0f} ms, "
          f"95th percentile {1000 * times[int(0.95 * (len(times) - 1))]:.0f} ms, max {1000 * times[-1]:.0f} ms")


if __name__ == "__main__":
    main()
