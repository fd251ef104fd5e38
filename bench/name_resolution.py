#!/usr/bin/python3
"""How the names people type resolve on this machine: every used face's PostScript name, and
every family, through `fontrix specimen` (which resolves a name exactly as similar does), against
what fc-match gives; and the rows each list prints against the faces fontconfig lists.

Usage: bench/name_resolution.py [BUILD_DIR]   (default build; the module's caches: a temporary folder)
"""
import concurrent.futures
import json
import os
import subprocess
import sys
import tempfile

BUILD = sys.argv[1] if len(sys.argv) > 1 else "build"
FONTRIX = os.path.join(BUILD, "bin", "fontrix")
CACHE = tempfile.mkdtemp(prefix="fontrix-names-")
ENV = {**os.environ, "FONTRIX_CACHE_DIR": CACHE}


def tool(*args):
    return subprocess.run([FONTRIX, *args], capture_output=True, text=True, env=ENV)


def resolved(typed):
    r = tool("--json", "specimen", typed, "Hg", "-o", os.path.join(CACHE, "x.png"), "--disable",
             "classification,similarity,recognition")
    return json.loads(r.stdout)["font"] if r.returncode == 0 else None


def fc_match(pattern):
    return subprocess.run(["fc-match", "-f", "%{file}:%{index}", pattern], capture_output=True, text=True).stdout


def main():
    fonts = json.loads(tool("--json", "fonts").stdout)["fonts"]
    listing = {}
    for line in tool("fonts", "--all", "--format", "%{file}:%{index}\\t%{name}\\n").stdout.splitlines():
        where, name = line.split("\t")
        listing[where] = name
    families = sorted({f["family"] for f in fonts})
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        by_name = list(pool.map(resolved, [f["name"] for f in fonts]))
        by_family = list(pool.map(resolved, families))
    same_name = sum(r == f["name"] for r, f in zip(by_name, fonts))
    agree = [listing.get(fc_match(family)) == r for family, r in zip(families, by_family)]
    print(f"PostScript names resolving to their own face: {same_name} / {len(fonts)}")
    print(f"families resolving to fc-match's face: {sum(agree)} / {len(families)}")
    for family, r, ok in zip(families, by_family, agree):
        if not ok:
            print(f"  {family}: {r}, fc-match {fc_match(family)} ({listing.get(fc_match(family), 'not a used face')})")
    faces = int(subprocess.run("fc-list | wc -l", shell=True, capture_output=True, text=True).stdout)
    classes = len(tool("classes").stdout.splitlines())
    print(f"faces fontconfig lists: {faces}; rows of fonts --all: {len(listing)}; fonts: {len(fonts)}; "
          f"classes: {classes}")


if __name__ == "__main__":
    main()
