#!/usr/bin/python3
"""How fontrix recognize does on pictures another renderer drew: PIL's FreeType rasteriser draws
lines in installed faces straight from their font files, and each picture goes through the
whole tool. Per kind of picture, the share of faces named first (top-1) and among the first
five (top-5). A face's outline twins (Liberation and the Chrome OS fonts, URW and TeX Gyre)
count as the face: no picture tells them apart.

Kinds: tight (the line with a margin of an eighth of its height), wide (the same line
somewhere in a 1600 x 1000 picture), two (two lines of a paragraph, wide margins), rough
(wide, on a tinted page, in a thin frame, saved as a JPEG of quality 60), and small and
smallpara (rough, one line or two, at 22 and 30 pixels to the em instead of 40 and 72),
three (rough, three lines at 22 and 30 pixels), and solid (three lines at 40 and 72 pixels set
solid, one em apart, so that ascenders and descenders of lines next to each other touch).

Usage: recognition_pictures.py [--fontrix PATH] [--kinds KIND,...] [--largest-line] [--keep DIR]
"""
import argparse
import io
import json
import os
import random
import subprocess
import sys
import tempfile

from PIL import Image, ImageDraw, ImageFont

FACES = ("Roboto-Regular", "OpenSans", "Lato-Regular", "Lato-Bold", "DejaVuSerif", "DejaVuSans-Bold",
         "DejaVuSansMono", "Cantarell-Regular", "EBGaramond12-Regular", "LinLibertineO", "LinBiolinumO",
         "NotoSerif-Regular", "NotoSans-Italic", "RobotoSlab-Regular", "RobotoCondensed-Regular", "URWBookman-Light",
         "C059-Italic", "Z003-MediumItalic", "Hack-Regular", "LiberationMono-Bold", "P052-Roman", "URWGothic-Demi")
# Faces with the same outlines under other names.
TWINS = [
    {"LiberationSans", "Arimo"}, {"LiberationSerif", "Tinos"}, {"LiberationMono", "Cousine"},
    {"LiberationMono-Bold", "Cousine-Bold"}, {"URWBookman-Light", "TeXGyreBonum-Regular"},
    {"C059-Italic", "TeXGyreSchola-Italic"}, {"Z003-MediumItalic", "TeXGyreChorus-MediumItalic"},
    {"P052-Roman", "TeXGyrePagella-Regular"}, {"URWGothic-Demi", "TeXGyreAdventor-Bold"},
    {"NimbusSans-Regular", "TeXGyreHeros-Regular", "FreeSans"}, {"OpenSans", "OpenSans-Regular"},
    {"DejaVuSerif", "DejaVuMathTeXGyre-Regular"},  # the same Latin letters, hinted otherwise
]
LINES = ("Jackdaws love my big sphinx", "of quartz, vowed the fox", "Pack my box with five dozen", "liquor jugs")
PARAGRAPHS = (("Sphinx of black quartz,", "judge my vow: the five", "boxing wizards jump quickly."),
              ("Grumpy wizards make toxic", "brew for the evil queen", "and Jack, 1984."))


def same_face(a, b):
    return a == b or any(a in t and b in t for t in TWINS)


def draw_line(font, text, margin_share=0.125, size=56):
    """A line of `text` with margins of `margin_share` of its ink height: grey, ink 0 on 255."""
    face = ImageFont.truetype(font["file"], size, index=font["index"])
    left, top, right, bottom = face.getbbox(text)
    h = bottom - top
    m = max(2, int(h * margin_share))
    picture = Image.new("L", (right - left + 2 * m, h + 2 * m), 255)
    ImageDraw.Draw(picture).text((m - left, m - top), text, font=face, fill=0)
    return picture


def place(line, rng, size=(1600, 1000), page=255):
    picture = Image.new("L", size, page)
    x = rng.randint(0, max(0, size[0] - line.width))
    y = rng.randint(0, max(0, size[1] - line.height))
    picture.paste(line, (x, y))
    return picture


def paragraph(font, texts, size, rng, leading=1.3):
    face = ImageFont.truetype(font["file"], size, index=font["index"])
    picture = Image.new("L", (1600, 1000), 255)
    x, y = rng.randint(40, 400), rng.randint(40, 600)
    d = ImageDraw.Draw(picture)
    for k, text in enumerate(texts):
        d.text((x, y + int(k * size * leading)), text, font=face, fill=0)
    return picture


def rough(picture, rng):
    tint = rng.randint(215, 240)
    picture = Image.eval(picture, lambda v: int(v * tint / 255))
    d = ImageDraw.Draw(picture)
    inset = rng.randint(0, 12)
    d.rectangle((inset, inset, picture.width - 1 - inset, picture.height - 1 - inset), outline=40, width=2)
    out = io.BytesIO()
    picture.save(out, "JPEG", quality=60)
    return out.getvalue(), ".jpg"


def pictures(font, kind, rng):
    """(bytes, suffix) of each picture of `kind` for `font`."""
    out = []
    for k, text in enumerate(LINES[:2]):
        size = (40, 72)[k]
        if kind in ("small", "smallpara", "three"):
            size = (22, 30)[k]
        if kind == "three":
            picture = paragraph(font, PARAGRAPHS[k], size, rng)
        elif kind == "solid":
            picture = paragraph(font, PARAGRAPHS[k], size, rng, leading=1.0)
        elif kind in ("two", "smallpara"):
            picture = paragraph(font, (LINES[2 * k], LINES[2 * k + 1]) if k else LINES[:2], size, rng)
        else:
            line = draw_line(font, text, size=size)
            picture = line if kind == "tight" else place(line, rng)
        if kind in ("rough", "small", "smallpara", "three"):
            out.append(rough(picture, rng))
        else:
            data = io.BytesIO()
            picture.save(data, "PNG")
            out.append((data.getvalue(), ".png"))
    return out


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    here = os.path.dirname(os.path.abspath(__file__))
    parser.add_argument("--fontrix", default=os.path.join(here, "..", "build", "bin", "fontrix"))
    parser.add_argument("--kinds", default="tight,wide,two,rough,small,smallpara,three,solid")
    parser.add_argument("--keep", help="folder to keep the pictures in")
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--largest-line", action="store_true", help="read only the largest line of each picture")
    args = parser.parse_args()
    env = {k: v for k, v in os.environ.items() if k != "FONTRIX_DISABLE"}
    listed = json.loads(subprocess.run([args.fontrix, "fonts", "--json"], capture_output=True, text=True,
                                       check=True, env=env).stdout)["fonts"]
    fonts = {f["name"]: f for f in listed}
    faces = [f for f in FACES if f in fonts]
    missing = sorted(set(FACES) - set(faces))
    if missing:
        print("not installed, left out:", " ".join(missing), file=sys.stderr)
    folder = args.keep or tempfile.mkdtemp(prefix="fontrix-pictures-")
    os.makedirs(folder, exist_ok=True)
    print(f"{len(faces)} faces, two pictures each; pictures in {folder}")
    print("kind\ttop-1\ttop-5\tno answer\tmisses (face: first answer)")
    for kind in args.kinds.split(","):
        rng = random.Random(args.seed)
        first = five = empty = total = 0
        misses = []
        for name in faces:
            for k, (data, suffix) in enumerate(pictures(fonts[name], kind, rng)):
                path = os.path.join(folder, f"{kind}-{name}-{k}{suffix}")
                with open(path, "wb") as f:
                    f.write(data)
                r = subprocess.run([args.fontrix, "recognize", path, "--json", "--limit", "5"] +
                                   (["--largest-line"] if args.largest_line else []), capture_output=True, text=True,
                                   env=env)
                names = [x["name"] for x in json.loads(r.stdout)["results"]] if r.returncode == 0 else []
                total += 1
                empty += not names
                first += bool(names) and same_face(name, names[0])
                five += any(same_face(name, n) for n in names)
                if not (names and same_face(name, names[0])):
                    misses.append(f"{name}/{k}: {names[0] if names else '-'}")
        print(f"{kind}\t{first}/{total} ({100 * first / total:.0f} %)\t{five}/{total} ({100 * five / total:.0f} %)"
              f"\t{empty}\t{', '.join(misses)}")


if __name__ == "__main__":
    main()
