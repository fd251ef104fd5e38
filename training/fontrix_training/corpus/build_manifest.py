#!/usr/bin/python3
"""Writes training/corpus/manifest.tsv from the fetched corpus.

    training/run corpus.build_manifest [--cache DIR] [--rejects FILE]

Every face in DIR/fonts is named as the reference host names it (build/bin/fontrix fonts over
the corpus; fontconfig's scan where the host is not built), and kept when it
- is a static (not variable) TrueType, OpenType or WOFF2 face;
- maps a-z, A-Z and 0-9 and has the glyph "one" (by glyph name, or through U+0031 as the
  host's glyph lookup falls back);
- is not a small-capitals or all-capitals face, whose lower-case slots hold capitals;
- is not a Noto face for a script other than Latin (those repeat the Latin of Noto Sans);
- draws text (not a barcode, redaction, icon or guide-line face);
- has a unique name not already taken: Debian packages are read first (they are what
  Linux desktops install), then npm packages in listed order.
"""
import sys
import argparse
import concurrent.futures
import json
import os
import re
import struct
import subprocess

from fontTools.pens.boundsPen import BoundsPen
from fontTools.ttLib import TTCollection, TTFont, TTLibError

from fontrix_training.corpus import fetch
from fontrix_training import BIN, CORPUS, WITH_CORPUS

MANIFEST = os.path.join(CORPUS, "manifest.tsv")
MANIFEST_FIELDS = ("unique_name", "family", "style", "weight", "italic", "file", "package", "licence")
READABLE = (".ttf", ".otf", ".ttc", ".otc", ".woff2")
ALPHANUMERICS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
# Faces that draw no text: barcodes, redaction bars, waveforms, icons, keyboard caps,
# lettering guide lines.
NOT_TEXT = re.compile(r"^Libre Barcode|^Redacted|^Linefont$|^Wavefont$|^Yarndings|^Material Symbols|"
                      r"^Libertinus (Keyboard|Math)$|^Flow (Block|Circular|Rounded)$| Guides$|"
                      r"^Jersey \d+ Charted$|^Jacquard.* Charted$|^Micro 5 Charted$")
NOTO_LATIN = re.compile(r"^Noto (Sans|Serif)( Mono| Display)?$|^Noto Mono$")

# fontconfig's weight scale to the CSS one the manifest uses.
FC_TO_CSS_WEIGHT = ((0, 100), (40, 200), (50, 300), (55, 350), (75, 400), (80, 400), (100, 500),
                    (180, 600), (200, 700), (205, 800), (210, 900), (215, 950))


def css_weight(fc_weight):
    best = min(FC_TO_CSS_WEIGHT, key=lambda pair: abs(pair[0] - fc_weight))
    return best[1]


def scan_folder(folder):
    """fontconfig's view of every face in a folder: dicts with file, index, family, style,
    weight, italic, variable and unique_name."""
    fmt = "%{file}\t%{index}\t%{family[0]}\t%{style[0]}\t%{weight}\t%{slant}\t%{variable}\t%{postscriptname}\n"
    out = subprocess.run(["fc-scan", "--format", fmt, folder], capture_output=True, text=True).stdout
    faces = []
    for line in out.splitlines():
        fields = line.split("\t")
        if len(fields) != 8:
            continue
        file, index, family, style, weight, slant, variable, postscript = fields
        try:
            fc_weight = float(weight)
        except ValueError:  # a variable font's range, "[100 900]"
            fc_weight = 80
        try:
            faces.append({"file": file, "index": int(index), "family": family, "style": style,
                          "weight": css_weight(fc_weight), "italic": int(float(slant or 0) > 0),
                          "variable": variable == "True" or int(index) >= 0x10000, "unique_name": postscript})
        except ValueError:
            continue
    return faces


def host_names(cache):
    """file -> [(style, unique name)] as the reference host names the corpus faces (FreeType's
    PostScript name, which for CFF fonts can differ from fontconfig's), or {} when the host is
    not built."""
    tool = os.path.join(BIN, "fontrix")
    if not os.path.exists(tool):
        return {}
    env = dict(os.environ, FONTRIX_CORPUS_DIR=cache)
    out = subprocess.run([WITH_CORPUS, tool, "fonts", "--json"], env=env,
                         capture_output=True, text=True, check=True).stdout
    result = {}
    for font in json.loads(out)["fonts"]:
        result.setdefault(font["file"], []).append((font["style"], font["name"]))
    return result


def host_name(face, names):
    """The host's name for a face: the only one of its file, or the one of its style. None
    when the host lists nothing of the file: it gave the face's name to another face."""
    if not names:
        return face["unique_name"]
    listed = names.get(face["file"], [])
    if not listed:
        return None
    if len(listed) == 1:
        return listed[0][1]
    same_style = [name for style, name in listed if style == face["style"]]
    return same_style[0] if len(same_style) == 1 else face["unique_name"]


def glyph_bounds(font, glyph_set, cmap, char):
    name = cmap.get(ord(char))
    if name is None:
        return None
    pen = BoundsPen(glyph_set)
    glyph_set[name].draw(pen)
    return pen.bounds


def lower_case_holds_capitals(font, cmap):
    """True when the ascender letters rise no higher than 'x' and the descender letters do
    not descend: the lower-case slots hold (small) capitals."""
    glyph_set = font.getGlyphSet()
    cap = glyph_bounds(font, glyph_set, cmap, "H")
    x = glyph_bounds(font, glyph_set, cmap, "x")
    if not cap or not x:
        return False
    cap_height = cap[3] - min(cap[1], 0)
    if cap_height <= 0:
        return False
    tops = [b[3] for b in (glyph_bounds(font, glyph_set, cmap, c) for c in "bdhkl") if b]
    bottoms = [b[1] for b in (glyph_bounds(font, glyph_set, cmap, c) for c in "gpqy") if b]
    if not tops or not bottoms:
        return False
    rises = (sorted(tops)[len(tops) // 2] - x[3]) / cap_height
    descends = -sorted(bottoms)[len(bottoms) // 2] / cap_height
    return rises < 0.08 and descends < 0.05


def check_face(path, index):
    """None when the face belongs in the corpus, else the reason it does not."""
    try:
        with open(path, "rb") as file:
            if path.lower().endswith((".ttc", ".otc")):
                font = TTCollection(file, lazy=True).fonts[index]
            else:
                font = TTFont(file, lazy=True, fontNumber=index)
            cmap = font.getBestCmap() or {}
            missing = [c for c in ALPHANUMERICS if ord(c) not in cmap]
            if missing:
                return "lacks " + "".join(missing[:8])
            if "one" not in font.getGlyphOrder() and 0x31 not in cmap:
                return "lacks the glyph one"
            if lower_case_holds_capitals(font, cmap):
                return "lower case holds capitals"
    except (TTLibError, OSError, KeyError, IndexError, AssertionError, ValueError, TypeError, AttributeError,
            ZeroDivisionError, struct.error) as error:
        return f"unreadable: {type(error).__name__}"
    return None


def package_order(cache):
    """(source, package, info) in packages.tsv order, Debian first; only fetched ones."""
    rows = fetch.read_packages()
    ordered = [r for r in rows if r[0] == "debian"] + [r for r in rows if r[0] == "npm"]
    for source, package, _ in ordered:
        folder = fetch.package_folder(cache, source, package)
        try:
            with open(os.path.join(folder, "info.json"), encoding="utf-8") as f:
                info = json.load(f)
        except (OSError, ValueError):
            continue
        if info.get("files"):
            yield source, package, folder, info


def select_faces(candidates, reasons):
    """Keeps the first face of every unique name, in candidate order; reasons[i] says why
    candidates[i] is left out (None: it is fine). Returns (kept, rejected)."""
    kept, rejected, taken = [], [], set()
    for face, reason in zip(candidates, reasons):
        if reason is None and face["unique_name"] in taken:
            reason = "unique name already taken"
        if reason is None:
            taken.add(face["unique_name"])
            kept.append(face)
        else:
            rejected.append((face, reason))
    return kept, rejected


def precheck(face):
    """The reasons that need no look inside the font file."""
    if face["variable"]:
        return "variable font"
    if face["unique_name"] is None:
        return "the host does not list it (its name is another face's, or it lacks Latin letters)"
    if not face["unique_name"]:
        return "no PostScript name"
    if not face["file"].lower().endswith(READABLE):
        return "format left out (Type 1 or bitmap)"
    if face["family"].startswith("Noto ") and not NOTO_LATIN.match(face["family"]):
        return "Noto face of another script"
    if NOT_TEXT.search(face["family"]):
        return "draws no text"
    return None


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--cache", default=fetch.default_cache())
    parser.add_argument("--rejects", default=os.path.join(fetch.default_cache(), "rejects.tsv"))
    parser.add_argument("--jobs", type=int, default=2)
    args = parser.parse_args(argv)

    candidates, named = [], host_names(args.cache)
    for source, package, folder, info in package_order(args.cache):
        for face in sorted(scan_folder(folder), key=lambda f: (f["file"], f["index"])):
            face.update(package=f"{source}:{package}={info['version']}", licence=info.get("licence", ""),
                        unique_name=host_name(face, named))
            candidates.append(face)

    # A variable font's file lists its default instance and the whole font at the same index,
    # so faces are told apart by position, not by (file, index).
    reasons = [precheck(face) for face in candidates]
    to_open = [i for i, reason in enumerate(reasons) if reason is None]
    with concurrent.futures.ProcessPoolExecutor(max_workers=args.jobs) as pool:
        checked = pool.map(check_face, [candidates[i]["file"] for i in to_open],
                           [candidates[i]["index"] for i in to_open], chunksize=32)
        for i, reason in zip(to_open, checked):
            reasons[i] = reason

    kept, rejected = select_faces(candidates, reasons)
    root = os.path.join(args.cache, "")
    with open(MANIFEST, "w", encoding="utf-8") as f:
        f.write("\t".join(MANIFEST_FIELDS) + "\n")
        for face in kept:
            row = dict(face, file=face["file"][len(root):] if face["file"].startswith(root) else face["file"])
            if face["index"]:
                row["file"] += f"#{face['index']}"
            f.write("\t".join(str(row[k]) for k in MANIFEST_FIELDS) + "\n")
    with open(args.rejects, "w", encoding="utf-8") as f:
        for face, reason in rejected:
            f.write(f"{face['unique_name'] or ''}\t{face['file']}\t{reason}\n")
    families = {face["family"] for face in kept}
    print(f"{len(kept)} faces from {len(families)} families kept; {len(rejected)} left out "
          f"(reasons in {args.rejects})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
