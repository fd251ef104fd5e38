#!/usr/bin/python3
"""What fontrix recognize answers, split by faces the recognition network has a class for
("table") and installed faces it has none for ("outside"), on pictures PIL draws straight from
the font files: half clean (the same line cut close, on a wide page, and with the next line
below it), half degraded (three of: a tinted, framed JPEG; text 12 to 20 pixels high; turned 3 to
8 degrees; in perspective; blurred with grain). Blank
pictures must get no answer. A face's outline twins count as the face; "family" counts any
face of the right family among the first five.

With --absent DIR (the fetched corpus folder), pictures of corpus faces of families that are not
installed are drawn as well, one clean and one degraded each: the module knows them (its known
faces) and should name them as not installed; an answer is right when it names the face, or a
face of the same outlines (CLONES), and of the right family when its family is the face's.
Without the known faces (fontrix recognize --installed-only: --installed-only) no answer can be
right, and the tool should rarely say it is sure of one.

Two picture sets that share no text, no random draw and no absent family: "fit" (to choose
settings and fit the confidence on) and "test" (the figures). --dump writes one JSON line per
picture.

Usage: training/run recognition_figures [--fontrix PATH] [--set fit|test] [--disable installed-lines]
                              [--absent DIR] [--installed-only] [--dump FILE] [--keep DIR]
"""
import argparse
import io
import json
import os
import random
import statistics
import subprocess
import sys
import tempfile
import time
import zlib

from PIL import Image, ImageDraw, ImageFilter, ImageFont

from fontrix_training import BIN, CORPUS, DATA, tab_rows

# Families drawn from the same outlines (clones, metric-compatible recuts, one family under two
# names): a picture cannot tell their faces of one style apart. Carlito is Lato's letters with
# Calibri's widths.
CLONES = [
    {"Arimo", "Liberation Sans"}, {"Tinos", "Liberation Serif"}, {"Cousine", "Liberation Mono"},
    {"Nimbus Sans", "TeX Gyre Heros", "FreeSans"}, {"Nimbus Sans Narrow", "TeX Gyre Heros Cn"},
    {"Nimbus Roman", "TeX Gyre Termes", "FreeSerif"}, {"Nimbus Mono PS", "TeX Gyre Cursor", "FreeMono"},
    {"URW Bookman", "TeX Gyre Bonum"}, {"C059", "TeX Gyre Schola"}, {"P052", "TeX Gyre Pagella"},
    {"URW Gothic", "TeX Gyre Adventor"}, {"Z003", "TeX Gyre Chorus"}, {"DejaVu Serif", "DejaVu Math TeX Gyre"},
    {"STIX", "STIXGeneral", "STIX Math"}, {"Lato", "Carlito"},
]


def same_face(a, b):
    """Faces `a` and `b` (entries of fontrix fonts --json) show the same letters: one face, or faces
    of one style of clone families: the same style name, or (fontconfig's values being unsure for
    some of them) weight within 20, both upright or both slanted, width within 15."""
    if a["name"] == b["name"]:
        return True
    if not any(a["family"] in c and b["family"] in c for c in CLONES):
        return False
    if a["style"].lower().replace("oblique", "italic") == b["style"].lower().replace("oblique", "italic"):
        return True
    return (abs(a["weight"] - b["weight"]) <= 20 and (a["slant"] > 0) == (b["slant"] > 0)
            and abs(a["width"] - b["width"]) <= 15)


TEXTS = {
    "fit": ("Sphinx of black quartz, judge", "my vow: the five boxing", "wizards jump quickly at",
            "dawn and Jack, 1984."),
    "test": ("Grumpy wizards make a toxic", "brew for the evil queen", "Waltz, bad nymph, for quick",
             "jigs vex 2035."),
}
SEEDS = {"fit": 11, "test": 23}
CLEAN = ("tight", "wide", "two")
DEGRADED = ("rough", "small", "slant", "perspective", "blur")
# Faces without Latin letters, or letters only by fallback: nothing a picture of text shows.
NOT_TEXT = ("NotoSansMath", "NotoSansSymbols", "NotoTraditionalNushu", "StandardSymbolsPS", "D050000L",
            "WenQuanYi", "Symbol", "Dingbats", "Emoji", "Math", "DejaVuMathTeXGyre")
TABLE_FACES = 40  # table faces drawn, spread over the installed ones
ABSENT_FACES = 30  # faces of families that are not installed


def face_sample(fonts, named, rng):
    # Named instances of a variable font (index above 65535) are left out: PIL draws the file's
    # default instance.
    usable = [f for f in fonts if not any(t in f["name"] for t in NOT_TEXT) and f["index"] < 65536 and
              f["file"].lower().endswith((".ttf", ".otf", ".pfb", ".t1", ".ttc"))]
    table = [f for f in usable if f["name"] in named]
    outside = [f for f in usable if f["name"] not in named]
    table = sorted(rng.sample(table, min(TABLE_FACES, len(table))), key=lambda f: f["name"])
    return table, sorted(outside, key=lambda f: f["name"])


def absent_faces(folder, installed_families, which, rng):
    """Up to ABSENT_FACES corpus faces (the manifest's, their files under the corpus folder
    `folder`) of families not installed, one a family, named as the module's known faces name
    them (unique name; the labels' family); the families of the fit set and the test set are told
    apart by a hash of the family name."""
    families_of = {row[0]: row[3] for _, row in tab_rows(os.path.join(CORPUS, "labels.tsv"))}
    rows = [row for _, row in tab_rows(os.path.join(CORPUS, "manifest.tsv")) if row[0] != "unique_name"]
    rows.sort()
    rng.shuffle(rows)
    faces, families = [], set()
    for row in rows:
        name, style, path = row[0], row[2], os.path.join(folder, row[5])
        family = families_of.get(name, row[1])
        if family in installed_families or family in families or not os.path.exists(path):
            continue
        if zlib.crc32(family.encode()) % 2 != (which == "test"):
            continue
        try:
            face = ImageFont.truetype(path, 40)
        except OSError:
            continue
        if face.getbbox("abcxyz")[2] <= 0 or face.getmask("a").getbbox() is None:
            continue  # no Latin letters
        families.add(family)
        faces.append({"name": name, "family": family, "style": style, "file": path, "index": 0,
                      "weight": 0, "width": 0, "slant": 0})
        if len(faces) >= ABSENT_FACES:
            break
    return faces


def absent_right(font, row):
    """An answer (a row of fontrix recognize --json) names the absent face `font`, or a face of the
    same outlines, and whether it names its family."""
    clone = any(font["family"] in c and row["family"] in c for c in CLONES)
    same_style = row["style"].lower().replace("oblique", "italic") == font["style"].lower().replace("oblique", "italic")
    return row["name"] == font["name"] or (clone and same_style), row["family"] == font["family"] or clone


def face_of(font, size):
    try:
        return ImageFont.truetype(font["file"], size, index=font["index"])
    except OSError:
        return None


def text_block(face, lines, leading=1.3, margin=0.2):
    size = face.size
    boxes = [face.getbbox(t) for t in lines]
    width = max(b[2] for b in boxes) + int(2 * margin * size)
    height = int(size * leading * (len(lines) - 1)) + max(b[3] for b in boxes) + int(2 * margin * size)
    picture = Image.new("L", (width, height), 255)
    d = ImageDraw.Draw(picture)
    for k, t in enumerate(lines):
        d.text((int(margin * size), int(margin * size + k * size * leading)), t, font=face, fill=0)
    return picture


def on_page(block, rng, size=(1600, 1000)):
    page = Image.new("L", size, 255)
    page.paste(block, (rng.randint(0, max(0, size[0] - block.width)), rng.randint(0, max(0, size[1] - block.height))))
    return page


def jpeg(picture, quality):
    out = io.BytesIO()
    picture.save(out, "JPEG", quality=quality)
    return Image.open(io.BytesIO(out.getvalue())).convert("L")


def perspective_coefficients(source, target):
    """PIL's eight perspective coefficients mapping target corners back to source corners."""
    import numpy
    rows = []
    for (x, y), (u, v) in zip(target, source):
        rows.append([x, y, 1, 0, 0, 0, -u * x, -u * y])
        rows.append([0, 0, 0, x, y, 1, -v * x, -v * y])
    return numpy.linalg.solve(numpy.array(rows, float), numpy.array(source, float).reshape(8)).tolist()


def picture(font, kind, texts, rng, size=None, first=None):
    """A picture of `kind` (PIL grey image) in `font`, or None when PIL cannot draw it. The clean
    kinds of one face share `size` and the `first` line of text, so that they differ only in
    margins and line count."""
    if kind == "small":
        size = rng.choice((16, 19, 22, 25))  # ink of a line 12 to 20 pixels high
    size = size or rng.choice((40, 56, 72))
    face = face_of(font, size)
    if face is None:
        return None
    k = rng.randrange(0, len(texts) - 1) if first is None else first
    line = [texts[k]]
    if kind == "tight":
        return text_block(face, line, margin=0.125)
    if kind == "wide":
        return on_page(text_block(face, line), rng)
    if kind == "two":
        return on_page(text_block(face, texts[k:k + 2]), rng)
    if kind == "rough":
        p = on_page(text_block(face, line), rng)
        tint = rng.randint(215, 240)
        p = Image.eval(p, lambda v: int(v * tint / 255))
        inset = rng.randint(0, 12)
        ImageDraw.Draw(p).rectangle((inset, inset, p.width - 1 - inset, p.height - 1 - inset), outline=40, width=2)
        return jpeg(p, 60)
    if kind == "small":
        p = text_block(face, line, margin=1.0)
        return jpeg(p, rng.choice((60, 80)))
    if kind == "slant":
        p = text_block(face, line, margin=0.4)
        angle = rng.choice((-1, 1)) * rng.uniform(3, 8)
        return p.rotate(angle, resample=Image.BICUBIC, expand=True, fillcolor=255)
    if kind == "perspective":
        p = text_block(face, line, margin=0.5)
        w, h = p.size
        d = rng.uniform(0.06, 0.12)
        if rng.random() < 0.5:  # one end further away: its side shorter
            target = [(0, 0), (w, d * h), (w, h - d * h), (0, h)]
        else:
            target = [(0, d * h), (w, 0), (w, h), (0, h - d * h)]
        source = [(0, 0), (w, 0), (w, h), (0, h)]
        return p.transform(p.size, Image.PERSPECTIVE, perspective_coefficients(source, target), Image.BICUBIC,
                           fillcolor=255)
    if kind == "blur":
        p = text_block(face, line, margin=0.4).filter(ImageFilter.GaussianBlur(rng.uniform(0.8, 1.4)))
        noise = Image.effect_noise(p.size, rng.uniform(8, 16))
        return jpeg(Image.blend(p, noise, 0.15), 75)
    raise ValueError(kind)


def blanks(rng):
    """Pictures that show no text."""
    out = [Image.new("L", (800, 300), 255), Image.new("L", (1600, 1000), rng.randint(200, 240))]
    grain = Image.effect_noise((800, 600), 12)
    out.append(jpeg(Image.blend(Image.new("L", (800, 600), 230), grain, 0.3), 50))
    framed = Image.new("L", (1200, 800), 250)
    ImageDraw.Draw(framed).rectangle((10, 10, 1189, 789), outline=30, width=3)
    out.append(framed)
    ramp = Image.linear_gradient("L").resize((900, 500))
    out.append(Image.eval(ramp, lambda v: 180 + v // 4))
    return out


def run(fontrix, path, disable, env, installed_only=False):
    started = time.monotonic()
    switches = (["--disable", disable] if disable else []) + (["--installed-only"] if installed_only else [])
    r = subprocess.run([fontrix, "recognize", path, "--json", "--limit", "40"] + switches,
                       capture_output=True, text=True, env=env)
    took = time.monotonic() - started
    answer = json.loads(r.stdout) if r.returncode == 0 and r.stdout.strip() else {"results": []}
    return r.returncode, answer, took


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--fontrix", default=os.path.join(BIN, "fontrix"))
    parser.add_argument("--data", default=DATA, help="the data folder fontrix uses")
    parser.add_argument("--set", default="test", choices=sorted(TEXTS))
    parser.add_argument("--disable", default="", help="passed to fontrix --disable (installed-lines)")
    parser.add_argument("--installed-only", action="store_true", help="passed to fontrix recognize")
    parser.add_argument("--absent", help="a folder of font files, some of families that are not installed")
    parser.add_argument("--dump", help="write one JSON line per picture here")
    parser.add_argument("--keep", help="folder to keep the pictures in")
    args = parser.parse_args()
    env = {k: v for k, v in os.environ.items() if k != "FONTRIX_DISABLE"}
    listed = json.loads(subprocess.run([args.fontrix, "fonts", "--json"], capture_output=True, text=True, check=True,
                                       env=env).stdout)["fonts"]
    with open(os.path.join(args.data, "NQ_rec_font.bin"), encoding="utf-8", errors="replace") as f:
        named = set(f.read().split("\n")[3::6])
    byname = {f["name"]: f for f in listed}
    rng = random.Random(SEEDS[args.set])
    table, outside = face_sample(listed, named, rng)
    absent = absent_faces(args.absent, {f["family"] for f in listed}, args.set, random.Random(SEEDS[args.set])) \
        if args.absent else []
    folder = args.keep or tempfile.mkdtemp(prefix="fontrix-figures-")
    os.makedirs(folder, exist_ok=True)
    dump = open(args.dump, "w") if args.dump else None
    texts = TEXTS[args.set]
    tally = {}  # (group, kind) -> [pictures, top1, top5, family5]
    times = []
    rated = []  # (confidence, right, first) of every answer with a confidence
    sure_firsts = []  # (sure, first answer right) of every picture the tool said sure or not about
    for group, faces in (("table", table), ("outside", outside), ("absent", absent)):
        for font in faces:
            # The clean kinds on one line of text at one size; three kinds of degradation (for an
            # absent face, one of each).
            size, first = rng.choice((40, 56, 72)), rng.randrange(0, len(texts) - 1)
            kinds = list(CLEAN) + rng.sample(DEGRADED, 3) if group != "absent" else \
                [rng.choice(CLEAN), rng.choice(DEGRADED)]
            for n, kind in enumerate(kinds):
                p = picture(font, kind, texts, rng, *((size, first) if kind in CLEAN else ()))
                if p is None:
                    continue
                path = os.path.join(folder, f"{group}-{font['name']}-{n}-{kind}.png")
                p.save(path)
                code, answer, took = run(args.fontrix, path, args.disable, env, args.installed_only)
                times.append(took)
                names = [r["name"] for r in answer["results"]]
                if group == "absent":
                    right, fam = [absent_right(font, r)[0] for r in answer["results"]], \
                        [absent_right(font, r)[1] for r in answer["results"]]
                else:
                    right = [x in byname and same_face(font, byname[x]) for x in names]
                    fam = [x in byname and byname[x]["family"] == font["family"] or r for x, r in zip(names, right)]
                t = tally.setdefault((group, kind), [0, 0, 0, 0])
                t[0] += 1
                t[1] += bool(right[:1] and right[0])
                t[2] += any(right[:5])
                t[3] += any(fam[:5])
                for k, (result, r) in enumerate(zip(answer["results"], right)):
                    if "confidence" in result:
                        rated.append((result["confidence"], r, k == 0))
                if "sure" in answer and names:
                    sure_firsts.append((answer["sure"], right[0], group))
                if dump:
                    dump.write(json.dumps({"set": args.set, "group": group, "kind": kind, "face": font["name"],
                                           "family": font["family"], "code": code, "answer": answer,
                                           "right": right, "same_family": fam}) + "\n")
    blank_answers = 0
    blank_rng = random.Random(SEEDS[args.set] + 1)
    for n, p in enumerate(blanks(blank_rng)):
        path = os.path.join(folder, f"blank-{n}.png")
        p.save(path)
        code, answer, _ = run(args.fontrix, path, args.disable, env, args.installed_only)
        blank_answers += bool(answer["results"]) or code == 0
    print(f"set {args.set}: {len(table)} table faces, {len(outside)} outside faces, {len(absent)} absent faces; "
          f"pictures in {folder}")
    print("group\tkind\tpictures\ttop-1\ttop-5\tfamily top-5")

    def row(group, kind, t):
        shares = "\t".join(f"{100 * right / t[0]:.0f} %" for right in t[1:4])
        print(f"{group}\t{kind}\t{t[0]}\t{shares}")

    for group in ("table", "outside", "absent"):
        for kind in CLEAN + DEGRADED:
            if (group, kind) in tally:
                row(group, kind, tally[(group, kind)])
        total = [sum(t[i] for (g, _), t in tally.items() if g == group) for i in range(4)]
        if total[0]:
            row(group, "all", total)
    print(f"blank pictures answered: {blank_answers} of {len(blanks(random.Random(0)))}")
    if rated:
        # How often answers of each confidence are right, and the first answers said to be sure.
        print("confidence\tanswers\tright\tmean confidence")
        for lo, hi in ((0, 0.2), (0.2, 0.4), (0.4, 0.6), (0.6, 0.8), (0.8, 0.9), (0.9, 1.01)):
            inside = [(c, r) for c, r, _ in rated if lo <= c < hi]
            if inside:
                print(f"{lo:.1f}-{min(hi, 1):.1f}\t{len(inside)}\t{100 * sum(r for _, r in inside) / len(inside):.0f} %"
                      f"\t{100 * sum(c for c, _ in inside) / len(inside):.0f} %")
        firsts = [(s, r) for s, r, g in sure_firsts if g != "absent"]
        absent_sure = [s for s, _, g in sure_firsts if g == "absent"]
        if absent_sure:
            print(f"absent faces: {sum(absent_sure)} of {len(absent_sure)} pictures said sure")
        sure = [r for s, r in firsts if s]
        unsure = [r for s, r in firsts if not s]
        print(f"sure: {len(sure)} of {len(firsts)} pictures, first answer right in "
              f"{100 * sum(sure) / max(1, len(sure)):.0f} % of them and in "
              f"{100 * sum(unsure) / max(1, len(unsure)):.0f} % of the others")
    print(f"whole process: median {statistics.median(times):.3f} s, p95 {sorted(times)[int(0.95 * len(times))]:.3f} s")


if __name__ == "__main__":
    sys.exit(main())
