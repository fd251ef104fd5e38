#!/usr/bin/python3
"""How fontrix substitute replaces the well-known families that are not open: of the families of
data/known_families.tsv that have an open look-alike installed here, at each weight the family
comes in (upright, and italic where it has italics), the share whose replacement is one of the
table's look-alikes (or a face of the same outlines: a clone's twin), and of those the share
whose weight is the nearest the look-alike's installed faces have to the one asked for, or within
one step (100) of it.

Usage: substitute_figures.py [--fontrix PATH] [--show]
"""
import argparse
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
# Families drawn from the same outlines: a look-alike's twin is as good as the look-alike.
TWINS = [{"Arimo", "Liberation Sans"}, {"Tinos", "Liberation Serif"}, {"Cousine", "Liberation Mono"},
         {"Nimbus Sans", "TeX Gyre Heros", "FreeSans"}, {"Nimbus Roman", "TeX Gyre Termes", "FreeSerif"},
         {"Nimbus Mono PS", "TeX Gyre Cursor", "FreeMono"}, {"URW Bookman", "TeX Gyre Bonum"},
         {"C059", "TeX Gyre Schola"}, {"P052", "TeX Gyre Pagella"}, {"URW Gothic", "TeX Gyre Adventor"},
         {"Z003", "TeX Gyre Chorus"}, {"Nimbus Sans Narrow", "TeX Gyre Heros Cn"}, {"Lato", "Carlito"}]


def same_design(a, b):
    return a.lower() == b.lower() or any(a in t and b in t for t in TWINS)


def css_weight(fontconfig):
    """fontconfig's weight as CSS (its own table, between its steps linearly)."""
    steps = [(0, 100), (40, 200), (50, 300), (80, 400), (100, 500), (180, 600), (200, 700), (205, 800), (210, 900)]
    for (f0, c0), (f1, c1) in zip(steps, steps[1:]):
        if fontconfig <= f1:
            return c0 + (c1 - c0) * (fontconfig - f0) / (f1 - f0)
    return 900


def table():
    rows = []
    with open(os.path.join(ROOT, "data", "known_families.tsv"), encoding="utf-8") as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            cells = line.rstrip("\n").split("\t")
            rows.append({"family": cells[0], "weights": [int(w) for w in cells[3].split(",")],
                         "italic": cells[5] == "yes", "open": cells[6::2]})
    return rows


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--fontrix", default=os.path.join(ROOT, "build", "bin", "fontrix"))
    parser.add_argument("--show", action="store_true", help="print every case")
    args = parser.parse_args()
    fonts = json.loads(subprocess.run([args.fontrix, "fonts", "--json"], capture_output=True, text=True,
                                      check=True).stdout)["fonts"]
    by_family = {}
    for f in fonts:
        by_family.setdefault(f["family"], []).append(f)
    families = [r for r in table() if any(any(same_design(o, i) for i in by_family) for o in r["open"])]
    cases = right = weight_kept = 0
    for row in families:
        for italic in (False, True) if row["italic"] else (False,):
            for weight in row["weights"]:
                r = subprocess.run([args.fontrix, "substitute", "--json", "--weight", str(weight)]
                                   + (["--italic"] if italic else []) + [row["family"]],
                                   capture_output=True, text=True)
                answer = json.loads(r.stdout)["substitutions"][0] if r.stdout.strip() else {}
                cases += 1
                family = answer.get("family", "")
                ok = any(same_design(o, family) for o in row["open"])
                right += ok
                kept = False
                if ok:
                    have = sorted({css_weight(f["weight"]) for f in by_family.get(family, [])})
                    nearest = min(have, key=lambda w: abs(w - weight)) if have else weight
                    got = answer.get("weight", 0)
                    kept = abs(got - weight) <= 100 or abs(got - nearest) < 1
                    weight_kept += kept
                if args.show or not (ok and kept):
                    print(f"{row['family']} {weight}{' italic' if italic else ''}: {family} "
                          f"{answer.get('style', '')} ({answer.get('weight')}, {answer.get('kind')})"
                          f"{'' if ok else '  <- not a look-alike'}{'' if kept or not ok else '  <- weight'}")
    print(f"{len(families)} of {len(table())} families have a look-alike installed; {cases} requests: "
          f"a look-alike first {right} ({100 * right / max(1, cases):.0f} %), its weight kept "
          f"{weight_kept} ({100 * weight_kept / max(1, right):.0f} % of those)")


if __name__ == "__main__":
    sys.exit(main())
