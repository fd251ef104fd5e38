#!/usr/bin/python3
"""How `fontrix classes` classes the installed faces, against a hand-labelled list of families:
per class recall and precision, the share of faces given their primary class, and the share
given a class that contradicts it (serif on a sans, script on a monospace, ...).

Usage: bench/class_answers.py [BUILD_DIR] [--no-vote] [--expected TSV] [--weights TSV] [--answers JSON]
                              [--list]
  BUILD_DIR: default build. The module runs with a fresh cache folder (`fontrix index --disable
  recognition`, then `fontrix classes --json`): its answers are those of the weights the module
  was built with, joined with the class vote of look-alike faces (data/similarity_table_classes.tsv).
  --no-vote: the linear rows' classes alone (`--disable class-vote`).
  --weights: the answers of another weights table (data/classification_weights.tsv after a refit,
  before the module is rebuilt): the faces `fontrix classes` lists, scored in the module's order
  over the features `font-features --all` measures, each class set when its score is above 0.5.
  --answers: judge a saved `fontrix classes --json` output instead of running fontrix.
  --expected: the list (default class_answers.tsv beside this script): family, its classes
  (primary first; each face should get them all), classes also acceptable (a monospace's
  serif or sans, not required and not wrong), a note. Faces of other families are not judged.
  --list: name every face a class was missed on or wrongly given.
  --sheets DIR: per class, a contact sheet (PNG) of the listed faces classed so rightly, of
  those it was missed on and of those it was wrongly given to, each a sample in the face labelled
  with its family and style, to judge by eye what the figures count.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile

from fontrix_training import tab_rows
from fontrix_training.fit_class_vote import read_rows as read_weights
from fontrix_training.fit_classification import CLASSES, CONTRADICTIONS

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EXPECTED = os.path.join(os.path.dirname(os.path.abspath(__file__)), "class_answers.tsv")
# The classes, and those a face of the first class should never also be given, as the fit judges the corpus.


def read_expected(path):
    """family -> (required classes, primary first; acceptable classes)."""
    expected = {}
    for number, fields in tab_rows(path):
        fields += ["", ""]
        required = [c for c in fields[1].split(",") if c]
        acceptable = [c for c in fields[2].split(",") if c]
        if not required or any(c not in CLASSES for c in required + acceptable) or fields[0] in expected:
            raise ValueError(f"{path}:{number}: expected family<TAB>classes<TAB>acceptable<TAB>note, "
                             f"one line a family, classes from {CLASSES}")
        expected[fields[0]] = (required, acceptable)
    return expected


def judge(fonts, expected):
    """Figures over the faces of the listed families: {class: (faces with it, given, right,
    wrongly given)}, primary-class share, contradiction share, faces judged, and the misses."""
    counts = {c: [0, 0, 0, 0] for c in CLASSES}
    primary_set = contradicted = judged = 0
    misses = []
    for font in fonts:
        if font["family"] not in expected:
            continue
        required, acceptable = expected[font["family"]]
        given = set(font["classes"])
        judged += 1
        for c in CLASSES:
            counts[c][0] += c in required
            counts[c][1] += c in given
            counts[c][2] += c in required and c in given
            wrong = c in given and c not in required and c not in acceptable
            counts[c][3] += wrong
            if c in required and c not in given:
                misses.append(f"{font['name']}: {c} missed")
            elif wrong:
                misses.append(f"{font['name']}: {c} given")
        primary_set += required[0] in given
        contradicted += bool(given & (set(CONTRADICTIONS.get(required[0], ())) - set(required) - set(acceptable)))
    return counts, primary_set / max(1, judged), contradicted / max(1, judged), judged, misses


def sheets(fonts, expected, build, folder, text="Handgloves 1984 quick Rivets"):
    """Writes FOLDER/CLASS-classed.png, -missed.png and -wrongly-given.png for every class that has
    faces of the kind; returns the files written."""
    from PIL import Image, ImageDraw
    os.makedirs(folder, exist_ok=True)
    fontrix = os.path.join(build, "bin", "fontrix")
    groups = {}
    for font in fonts:
        if font["family"] not in expected:
            continue
        required, acceptable = expected[font["family"]]
        given = set(font["classes"])
        for c in CLASSES:
            kind = ("classed" if c in given else "missed") if c in required else \
                "wrongly-given" if c in given and c not in acceptable else None
            if kind:
                groups.setdefault((c, kind), []).append(font)
    written = []
    with tempfile.TemporaryDirectory(prefix="fontrix-sheets-") as tmp:
        for (c, kind), faces in sorted(groups.items()):
            rows = []
            for font in sorted(faces, key=lambda f: (f["family"], f["style"])):
                path = os.path.join(tmp, "sample.png")
                r = subprocess.run([fontrix, "specimen", font["name"], text, "-o", path, "--size", "32"],
                                   capture_output=True, text=True)
                sample = Image.open(path).convert("L") if r.returncode == 0 else Image.new("L", (10, 10), 255)
                rows.append((f"{font['family']} {font['style']}", sample))
            width = 300 + max(im.width for _, im in rows)
            height = sum(max(24, im.height) + 6 for _, im in rows) + 40
            sheet = Image.new("L", (width, height), 255)
            draw = ImageDraw.Draw(sheet)
            draw.text((10, 10), f"{c} {kind.replace('-', ' ')}: {len(rows)} faces", fill=0)
            y = 40
            for label, im in rows:
                draw.text((10, y + 6), label, fill=0)
                sheet.paste(im, (300, y))
                y += max(24, im.height) + 6
            out = os.path.join(folder, f"{c}-{kind}.png")
            sheet.save(out)
            written.append(out)
    return written


def run_fontrix(build, vote=True):
    fontrix = os.path.join(build, "bin", "fontrix")
    with tempfile.TemporaryDirectory(prefix="fontrix-classes-") as cache:
        common = [fontrix, "--cache-dir", cache, "--disable", "recognition" if vote else "recognition,class-vote"]
        for words in (["index"], ["--json", "classes"]):
            r = subprocess.run(common + words, capture_output=True, text=True)
            if r.returncode != 0:
                sys.exit(f"fontrix {' '.join(words)} failed: {r.stderr.strip()}")
        return json.loads(r.stdout)["fonts"]


def rescore(fonts, build, weights):
    """The fonts with the classes `weights` gives them over the features font-features measures:
    intercept plus weight times feature for features 0 to 95 in turn, as the module adds them,
    so the scores are the module's to the last bit. Unmeasurable faces get no class."""
    r = subprocess.run([os.path.join(build, "bin", "font-features"), "--all"], capture_output=True, text=True)
    if r.returncode != 0:
        sys.exit(f"font-features failed: {r.stderr.strip()[-500:]}")
    features = {}
    for line in r.stdout.splitlines()[1:]:
        fields = line.split("\t")
        if "null" not in fields[1:]:
            features.setdefault(fields[0], [float(v) for v in fields[1:]])
    rows = read_weights(weights)
    for font in fonts:
        given = []
        for c in CLASSES if font["name"] in features else ():
            score, w = rows[c]
            for j, value in enumerate(features[font["name"]]):
                score += w[j] * value
            if score > 0.5:
                given.append(c)
        font["classes"] = given
    return fonts


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build", nargs="?", default=os.path.join(REPO, "build"))
    parser.add_argument("--expected", default=EXPECTED)
    parser.add_argument("--no-vote", action="store_true")
    parser.add_argument("--weights")
    parser.add_argument("--answers")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--sheets", help="write contact sheets per class into this folder")
    args = parser.parse_args(argv)
    expected = read_expected(args.expected)
    if args.answers:
        with open(args.answers, encoding="utf-8") as f:
            fonts = json.load(f)["fonts"]
    else:
        fonts = run_fontrix(args.build, vote=not args.no_vote)
    if args.weights:
        fonts = rescore(fonts, args.build, args.weights)
    counts, primary, contradicted, judged, misses = judge(fonts, expected)
    families = {f["family"] for f in fonts if f["family"] in expected}
    print(f"{judged} installed faces of {len(families)} listed families judged "
          f"({len(fonts) - judged} faces of other families not)")
    print("| class | faces with it | given | recall | precision |")
    print("|---|---|---|---|---|")
    for c in CLASSES:
        having, given, right, wrong = counts[c]
        recall = f"{right / having:.2f}" if having else "-"
        precision = f"{(given - wrong) / given:.2f}" if given else "-"
        print(f"| {c} | {having} | {given} | {recall} | {precision} |")
    print(f"primary class set: {100 * primary:.1f} %; a contradicting class set: {100 * contradicted:.1f} %")
    if args.list and misses:
        print("\n".join(misses))
    if args.sheets:
        print(f"{len(sheets(fonts, expected, args.build, args.sheets))} contact sheets in {args.sheets}")
    missing = sorted(set(expected) - families)
    if missing:
        print("listed families not installed: " + ", ".join(missing))
    return 0


if __name__ == "__main__":
    sys.exit(main())
