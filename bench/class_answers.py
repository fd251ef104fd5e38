#!/usr/bin/python3
"""How `fontrix classes` classes the installed faces, against a hand-labelled list of families:
per class recall and precision, the share of faces given their primary class, and the share
given a class that contradicts it (serif on a sans, script on a monospace, ...).

Usage: bench/class_answers.py [BUILD_DIR] [--no-vote] [--no-head] [--expected TSV] [--weights TSV]
                              [--answers JSON] [--corpus [--split SPLIT]] [--list] [--sheets DIR]
  BUILD_DIR: default build. The module runs with a fresh cache folder (`fontrix index --disable
  recognition`, then `fontrix classes --json`): its answers are those of the weights the module
  was built with, joined with the class vote of look-alike faces (data/similarity_table_classes.tsv).
  --no-vote: the linear rows' classes alone (`--disable class-vote`).
  --no-head: the rows and the vote without the class head (`--disable class-head`).
  --corpus: the fetched training corpus as the machine's fonts (training/corpus/with-corpus-fonts,
  its own cache folder, indexed there first), judging the faces of the held-out families of
  --split (default test) against the corpus labels: every class of a face is required. Families
  with a face in the shipped similarity table are left out: their siblings there would vote.
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


def corpus_expected(split):
    """unique name -> (classes, primary first; nothing more acceptable) of the labelled corpus
    faces of the families of `split`, but for families with a face in the shipped similarity
    table (data/NQ_sim_meta_fs.bin), whose siblings there would vote for them."""
    from fontrix_training.corpus import splits
    from fontrix_training.fit_class_vote import read_pair
    classes, family = splits.read_labels()
    split_of = splits.split_of_faces()
    voting = {splits.family_key(family.get(n, n)) for n in read_pair()[1]}
    return {name: (labels, []) for name, labels in classes.items()
            if labels and split_of.get(name) == split and splits.family_key(family[name]) not in voting}


def judge(fonts, expected, key="family"):
    """Figures over the faces of the listed families (or faces, by `key`): {class: (faces with it,
    given, right, wrongly given)}, primary-class share, contradiction share, faces judged, and
    the misses."""
    counts = {c: [0, 0, 0, 0] for c in CLASSES}
    primary_set = contradicted = judged = 0
    misses = []
    for font in fonts:
        if font[key] not in expected:
            continue
        required, acceptable = expected[font[key]]
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


def sheets(fonts, expected, build, folder, text="Handgloves 1984 quick Rivets", key="family", prefix=()):
    """Writes FOLDER/CLASS-classed.png, -missed.png and -wrongly-given.png for every class that has
    faces of the kind; returns the files written."""
    from PIL import Image, ImageDraw
    os.makedirs(folder, exist_ok=True)
    fontrix = os.path.join(build, "bin", "fontrix")
    groups = {}
    for font in fonts:
        if font[key] not in expected:
            continue
        required, acceptable = expected[font[key]]
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
                r = subprocess.run([*prefix, fontrix, "specimen", font["name"], text, "-o", path, "--size", "32"],
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


def run_fontrix(build, disabled, prefix=()):
    """`fontrix classes --json`'s fonts, after an index: in a fresh cache folder, or with a prefix
    (the corpus's) in the one it sets."""
    fontrix = os.path.join(build, "bin", "fontrix")
    with tempfile.TemporaryDirectory(prefix="fontrix-classes-") as cache:
        common = [*prefix, fontrix, "--disable", ",".join(["recognition", *disabled])]
        if not prefix:
            common[1:1] = ["--cache-dir", cache]
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
    parser.add_argument("--no-head", action="store_true")
    parser.add_argument("--corpus", action="store_true", help="judge the held-out corpus families")
    parser.add_argument("--split", default="test", help="with --corpus: the families judged (default test)")
    parser.add_argument("--weights")
    parser.add_argument("--answers")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--sheets", help="write contact sheets per class into this folder")
    args = parser.parse_args(argv)
    key, prefix = ("name", [os.path.join(REPO, "training", "corpus", "with-corpus-fonts")]) if args.corpus \
        else ("family", [])
    expected = corpus_expected(args.split) if args.corpus else read_expected(args.expected)
    if args.answers:
        with open(args.answers, encoding="utf-8") as f:
            fonts = json.load(f)["fonts"]
    else:
        disabled = ["class-vote"] * args.no_vote + ["class-head"] * args.no_head
        fonts = run_fontrix(args.build, disabled, prefix)
    if args.weights:
        fonts = rescore(fonts, args.build, args.weights)
    counts, primary, contradicted, judged, misses = judge(fonts, expected, key)
    families = {f["family"] for f in fonts if f[key] in expected}
    what = f"corpus faces of {args.split} families" if args.corpus else "installed faces of listed families"
    print(f"{judged} {what} judged ({len(families)} families; {len(fonts) - judged} other faces not)")
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
        written = sheets(fonts, expected, args.build, args.sheets, key=key, prefix=prefix)
        print(f"{len(written)} contact sheets in {args.sheets}")
    missing = sorted(set(expected) - families) if not args.corpus else []
    if missing:
        print("listed families not installed: " + ", ".join(missing))
    return 0


if __name__ == "__main__":
    sys.exit(main())
