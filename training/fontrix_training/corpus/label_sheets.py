#!/usr/bin/python3
"""Contact sheets of labelled corpus faces, to look at what a style class holds.

    training/run corpus.label_sheets CLASS OUT.png [--count N] [--seed S]
        [--primary] [--families FAMILY ...] [--cache DIR]

Each row is one face: a sample line drawn from its font file, then family, style, its classes
and its split. Faces are sampled one per family (the family's upright regular where it has one)
so that a large family does not fill the sheet; --count 0 takes every family. CLASS is a label
string (fs_script, ...) or "all"; --primary keeps faces whose first class it is; --families
draws the families named, whatever their class. With several pages (OUT-1.png, ...) when
--count exceeds --per-page.
"""
import argparse
import os
import random
import sys

from PIL import Image, ImageDraw, ImageFont

from fontrix_training.corpus import fetch
from fontrix_training.corpus import labels as corpus_labels
from fontrix_training.corpus import splits as corpus_splits

SAMPLE = "Handgloves Quick Brown Fox 1234"
ROW, SIZE, WIDTH, CAPTION = 40, 28, 640, 300


def read_labelled():
    """[(face, classes, source, family)] in the order of labels.tsv."""
    with open(corpus_labels.LABELS, encoding="utf-8") as f:
        f.readline()
        return [tuple(line.rstrip("\n").split("\t")) for line in f if line.strip()]


def representative(faces):
    """The face a family is shown by: upright, weight nearest 400, then name."""
    return min(faces, key=lambda m: (m["italic"] != "0", abs(int(m["weight"] or 400) - 400), m["unique_name"]))


def choose(labelled, manifest, wanted, primary, families, count, seed):
    """[(manifest row, classes)] of one face a family, in family order."""
    by_family = {}
    for name, classes, _, family in labelled:
        classes = classes.split(",") if classes else []
        if families:
            keep = family in families
        elif wanted == "all":
            keep = True
        else:
            keep = (classes[:1] == [wanted]) if primary else wanted in classes
        if keep and name in manifest:
            by_family.setdefault(family, []).append((manifest[name], classes))
    chosen = sorted(by_family)
    if count and len(chosen) > count:
        chosen = sorted(random.Random(seed).sample(chosen, count))
    picked = []
    for family in chosen:
        face = representative([m for m, _ in by_family[family]])
        picked.append((family, face, next(c for m, c in by_family[family] if m is face)))
    return picked


def draw_sheet(rows, split_of, cache, out):
    sheet = Image.new("L", (WIDTH + CAPTION, ROW * len(rows) + 4), 255)
    draw = ImageDraw.Draw(sheet)
    caption_font = ImageFont.load_default()
    for i, (family, face, classes) in enumerate(rows):
        top = 2 + i * ROW
        path = os.path.join(cache, face["file"].partition("#")[0])
        index = int(face["file"].partition("#")[2] or 0)
        try:
            font = ImageFont.truetype(path, SIZE, index=index)
            draw.text((6, top + ROW - 12), SAMPLE, font=font, fill=0, anchor="ls")
        except OSError as error:
            draw.text((6, top + 10), f"cannot draw: {error}", font=caption_font, fill=0)
        draw.rectangle((WIDTH, top, WIDTH + CAPTION, top + ROW - 1), fill=255)
        short = ",".join(c[3:] for c in classes)
        draw.text((WIDTH + 6, top + 8), f"{family} - {face['style']}", font=caption_font, fill=0)
        draw.text((WIDTH + 6, top + 24), f"{short}  [{split_of.get(face['unique_name'], '?')}]",
                  font=caption_font, fill=90)
        draw.line((0, top + ROW - 1, WIDTH + CAPTION, top + ROW - 1), fill=215)
    sheet.quantize(16).save(out, optimize=True)  # 16 greys: half the bytes, no visible loss


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("label", help="a class label string, or 'all'")
    parser.add_argument("out")
    parser.add_argument("--count", type=int, default=30, help="families sampled (0: every one)")
    parser.add_argument("--per-page", type=int, default=40)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--primary", action="store_true", help="only faces whose first class it is")
    parser.add_argument("--families", nargs="*", default=[])
    parser.add_argument("--cache", default=fetch.default_cache())
    args = parser.parse_args(argv)
    if args.label != "all" and args.label not in corpus_labels.CLASSES:
        parser.error(f"unknown class {args.label}")
    manifest = {m["unique_name"]: m for m in corpus_labels.read_manifest()}
    rows = choose(read_labelled(), manifest, args.label, args.primary, set(args.families), args.count,
                  args.seed)
    split_of = corpus_splits.split_of_faces()
    pages = [rows[i:i + args.per_page] for i in range(0, len(rows), args.per_page)] or [[]]
    stem, ext = os.path.splitext(args.out)
    for number, page in enumerate(pages, 1):
        out = args.out if len(pages) == 1 else f"{stem}-{number}{ext}"
        draw_sheet(page, split_of, args.cache, out)
        print(f"{out}: {len(page)} faces")
    return 0


if __name__ == "__main__":
    sys.exit(main())
