#!/usr/bin/python3
"""Fontrix with thousands of fonts installed, as in a designer's library: the machine's own fonts
plus open faces from the pinned npm packages of the training corpus (training/corpus/packages.tsv,
"latin" web-font files), fetched into a folder of their own and shown to fontconfig through a
configuration of their own, so nothing is installed system-wide. For each size, on an empty
Fontrix cache: the first `fontrix index` (whole process, once), then every command's whole-process
time (median) and peak memory with the caches it left, against fc-match (and fc-match -s).

    PYTHONPATH=training /usr/bin/python3 bench/scale.py [--sizes 600,2000,4000] [--runs 5]
        [--dir DIR] [--fetch-only] [--fontrix build/bin/fontrix]

DIR (default $FONTRIX_SCALE_DIR, then ~/.cache/fontrix-scale) keeps the fetched packages, a font
folder per size (links to whole packages, so a family is all in or all out) and the caches. A
size below the machine's own face count runs with the machine's fonts alone.
"""
import argparse
import concurrent.futures
import os
import shutil
import statistics
import subprocess
import sys

from fontrix_training.corpus import fetch
from whole_process import timed  # bench/ is this script's own folder

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SAMPLE = os.path.join(REPO, "data", "samples", "line-liberation-serif-bold.png")
# The commands timed with warm caches: what a user asks most, and the listing commands.
COMMANDS = [
    ("fonts", ["fonts"]),
    ("fonts --limit 3", ["fonts", "--limit", "3"]),
    ("classes script", ["classes", "script"]),
    ("similar DejaVu Sans", ["similar", "DejaVu Sans", "--limit", "10"]),
    ("recognize (sample line)", ["recognize", SAMPLE, "--limit", "5"]),
]


def default_dir():
    return os.environ.get("FONTRIX_SCALE_DIR") or os.path.expanduser("~/.cache/fontrix-scale")


def npm_packages():
    return [(package, version) for source, package, version in fetch.read_packages() if source == "npm"]


def face_files(folder):
    return [name for name in os.listdir(folder) if name.endswith(".woff2")]


def fetch_until(root, faces, jobs):
    """Fetches packages in list order until their faces number at least `faces`; returns the
    folders of the packages used, in order."""
    folders, count = [], 0
    todo = []
    for package, version in npm_packages():
        if count >= faces:
            break
        folder = fetch.package_folder(root, "npm", package)
        if fetch.fetched_version(root, "npm", package) is None:
            todo.append((package, version))
        folders.append(folder)
        # A package not fetched yet counts as the usual family of about seven faces for now.
        count += len(face_files(folder)) if os.path.isdir(folder) else 7
    if todo:
        print("scale: fetching %d npm packages into %s" % (len(todo), root), flush=True)
        with concurrent.futures.ThreadPoolExecutor(max_workers=jobs) as pool:
            for future in [pool.submit(fetch.fetch_npm, root, p, v) for p, v in todo]:
                try:
                    future.result()
                except (subprocess.CalledProcessError, OSError) as error:
                    print("scale: fetch failed: %s" % error, file=sys.stderr)
        return fetch_until(root, faces, jobs)
    return [f for f in folders if os.path.isdir(f)]


def listed_faces(env=None):
    """How many faces fontconfig lists (with the environment's configuration)."""
    out = subprocess.run(["fc-list", "--format", "%{file}\n"], env=env, capture_output=True, text=True,
                         check=True).stdout
    return len(out.split())


def prepare_size(root, size, folders, own):
    """A font folder linking enough packages to bring the machine's `own` faces to about `size`,
    and a fontconfig file with the machine's configuration plus that folder."""
    folder = os.path.join(root, "sets", str(size))
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    count = own
    for package in folders:
        if count >= size:
            break
        os.symlink(package, os.path.join(folder, os.path.basename(package)))
        count += len(face_files(package))
    conf = os.path.join(root, "fonts-%d.conf" % size)
    with open(conf, "w", encoding="utf-8") as f:
        f.write('<?xml version="1.0"?>\n<!DOCTYPE fontconfig SYSTEM "urn:fontconfig:fonts.dtd">\n<fontconfig>\n'
                '  <include ignore_missing="yes">/etc/fonts/fonts.conf</include>\n'
                '  <dir>%s</dir>\n  <cachedir>%s</cachedir>\n</fontconfig>\n'
                % (folder, os.path.join(root, "fontconfig-cache")))
    return conf, count


def measure(fontrix, conf, cache, runs):
    env = dict(os.environ, FONTCONFIG_FILE=conf)
    subprocess.run(["fc-list"], env=env, stdout=subprocess.DEVNULL, check=True)  # fontconfig's own cache
    shutil.rmtree(cache, ignore_errors=True)
    base = [fontrix, "--cache-dir", cache]
    listed = listed_faces(env)
    cpu = []
    wall, peak, status, err = timed(base + ["index"], env, cpu)
    if status != 0:
        sys.exit("scale: index failed (%d): %s" % (status, err[-500:]))
    rows = [("index, empty cache", wall, peak)]
    used = len(subprocess.run(base + ["fonts"], env=env, capture_output=True, text=True).stdout.splitlines())
    print("scale: index took %.1f s of processor time, %.1f ms a font used" % (cpu[0], 1000 * cpu[0] / max(used, 1)),
          flush=True)
    # fontconfig's own answers for scale: the best match, and every font sorted by match (-s).
    for name, argv in [(name, base + args) for name, args in COMMANDS] + [
            ("fc-match DejaVu Sans", ["fc-match", "DejaVu Sans"]),
            ("fc-match -s DejaVu Sans", ["fc-match", "-s", "DejaVu Sans"])]:
        results = [timed(argv, env) for _ in range(runs + 1)][1:]
        for _, _, status, err in results:
            if status != 0:
                sys.exit("scale: %s failed (%d): %s" % (" ".join(argv), status, err[-500:]))
        rows.append((name, statistics.median(r[0] for r in results), max(r[1] for r in results)))
    return listed, used, rows


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--sizes", default="600,2000,4000")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--dir", default=default_dir())
    parser.add_argument("--jobs", type=int, default=4)
    parser.add_argument("--fetch-only", action="store_true")
    parser.add_argument("--fontrix", default=os.path.join(REPO, "build", "bin", "fontrix"))
    args = parser.parse_args()
    sizes = [int(s) for s in args.sizes.split(",")]
    own = listed_faces()
    os.makedirs(args.dir, exist_ok=True)
    folders = fetch_until(args.dir, max(sizes) - own, args.jobs)
    print("scale: this machine lists %d faces; %d packages fetched" % (own, len(folders)), flush=True)
    if args.fetch_only:
        return
    for size in sizes:
        conf, _ = prepare_size(args.dir, size, folders, own)
        listed, used, rows = measure(args.fontrix, conf, os.path.join(args.dir, "cache-%d" % size), args.runs)
        print("\n== %d faces listed by fontconfig, %d used by the module" % (listed, used))
        print("%-28s %10s %10s" % ("command", "seconds", "peak MB"))
        for name, wall, peak in rows:
            print("%-28s %10.3f %10.0f" % (name, wall, peak))
        sys.stdout.flush()


if __name__ == "__main__":
    main()
