#!/usr/bin/python3
"""Chooses the shipped table's faces and makes the training pictures, through the reference
host with the corpus as its fonts.

    training/run prepare_training_data --work DIR [--jobs 2] [--lines-per-font 60] [--only FILE ...]

Writes into DIR:
- names.txt: every face of the manifest (a specimens record's label is its line here);
- table.tsv: the 1,864 faces of the shipped similarity table, which are also the recognition
  network's classes in order: identifier, unique name, family, style. Faces of commonly
  installed Debian packages get 12-character identifiers; the rest, library faces of training
  and validation families, 7-character ones;
- rec_classes.txt, the recognition network's classes: the table's system faces, in table
  order. Recognition only ever steers by classes that are installed fonts, and on Linux those
  are the commonly installed ones; library faces would only dilute the classes;
- sim_classes.txt (training-split faces, on which the similarity embedding is trained);
- specimens.bin (every face), lines_first.bin (20 degraded pictures a recognition class, on which
  the first stage trained), lines.bin, lines_more.bin, lines_third.bin and lines_fourth.bin
  (degraded pictures of the recognition classes, for training; four seeds, since recognition
  learnt best from pictures it had not yet seen), lines_validation.bin (degraded
  pictures of yet another seed, on which choices about the recognition head are made, so the
  report's pictures stay unseen by every choice),
  lines_clean_train.bin (clean ones, for training: clean pictures are not merely the mildest
  degraded ones, as their narrower margins and sizes showed), lines_heldout.bin (other degraded
  pictures, for the report), lines_clean.bin (clean ones) and lines_tall.bin (lines in tall
  pictures, each also cut to its band), and bands.bin (pictures of lines of training faces, half
  in tall pictures, with their bands: for the localisation network).
The pictures are the same on every run, so a picture file is kept when present: remove it to
remake it.
"""
import sys
import argparse
import hashlib
import os
import subprocess

from fontrix_training import images
from fontrix_training.corpus import labels as corpus_labels
from fontrix_training.corpus import splits as corpus_splits
from fontrix_training import BIN, TRAINING, WITH_CORPUS

TABLE_SIZE = 1864
TOOL = os.path.join(BIN, "training-images")
WORDS = os.path.join(TRAINING, "words.txt")


# Debian font packages that Linux desktops commonly install (by default or with office and TeX
# suites); their faces are the table's system faces.
COMMON_PACKAGES = {
    "fonts-dejavu-core", "fonts-dejavu-extra", "fonts-liberation", "fonts-liberation2", "fonts-croscore",
    "fonts-crosextra-caladea", "fonts-crosextra-carlito", "fonts-noto-core", "fonts-noto-mono",
    "fonts-urw-base35", "fonts-texgyre", "fonts-lmodern", "fonts-cantarell", "fonts-freefont-otf",
    "fonts-open-sans", "fonts-lato", "fonts-roboto-unhinted", "fonts-roboto-slab", "fonts-quicksand",
    "fonts-comfortaa", "fonts-oxygen", "fonts-hack", "fonts-inconsolata", "fonts-firacode",
    "fonts-jetbrains-mono", "fonts-linuxlibertine", "fonts-stix", "fonts-cmu", "fonts-inter", "fonts-ebgaramond",
    "fonts-sil-gentiumplus", "fonts-sil-charis", "fonts-sil-andika", "fonts-go", "fonts-paratype", "fonts-cabin",
    "fonts-karla", "fonts-dosis", "fonts-opendyslexic", "fonts-tlwg-garuda-otf", "fonts-tlwg-kinnari-otf",
    "fonts-tlwg-laksaman-otf", "fonts-tlwg-loma-otf", "fonts-tlwg-mono-otf", "fonts-tlwg-norasi-otf",
    "fonts-tlwg-purisa-otf", "fonts-tlwg-sawasdee-otf", "fonts-tlwg-typewriter-otf", "fonts-tlwg-typist-otf",
    "fonts-tlwg-typo-otf", "fonts-tlwg-umpush-otf", "fonts-tlwg-waree-otf",
}


def is_common(face):
    return face["package"].startswith("debian:") and face["package"][7:].split("=")[0] in COMMON_PACKAGES


def identifier(name, length):
    return hashlib.sha1(name.encode("utf-8")).hexdigest()[:length]


def choose_table(manifest, split_of_face, drawable, size=TABLE_SIZE):
    """(identifier, face) pairs: every face of a commonly installed Debian package, then
    library faces of training and validation families in hash order, up to `size`; only
    faces whose specimens can be drawn (`drawable` names)."""
    manifest = [f for f in manifest if f["unique_name"] in drawable]
    system = [f for f in manifest if is_common(f)]
    if len(system) > size:
        raise ValueError(f"{len(system)} system faces do not fit a table of {size}")
    library = sorted((f for f in manifest if not is_common(f) and split_of_face[f["unique_name"]] != "test"),
                     key=lambda f: identifier(f["unique_name"], 40))
    table = [(identifier(f["unique_name"], 12), f) for f in system]
    table += [(identifier(f["unique_name"], 7), f) for f in library[:size - len(system)]]
    if len(table) != size:
        raise ValueError(f"only {len(table)} faces for a table of {size}")
    ids = [i for i, _ in table]
    if len(set(ids)) != len(ids):
        raise ValueError("two table faces share an identifier")
    return table


def write_lines(path, lines):
    with open(path, "w", encoding="utf-8") as f:
        f.writelines(line + "\n" for line in lines)


def run_parts(work, jobs, args, out):
    """training-images over `jobs` processes, their files joined into `out`."""
    parts = [f"{out}.part{k}" for k in range(jobs)]
    procs = [subprocess.Popen([WITH_CORPUS, TOOL] + args + [parts[k], "--part", f"{k}/{jobs}"], cwd=work)
             for k in range(jobs)]
    if any(p.wait() != 0 for p in procs):
        raise RuntimeError(f"training-images {' '.join(args)} failed")
    with open(out + ".tmp", "wb") as joined:
        for k, part in enumerate(parts):
            with open(part, "rb") as f:
                data = f.read()
            joined.write(data if k == 0 else data[8:])
            os.unlink(part)
    os.replace(out + ".tmp", out)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--lines-per-font", type=int, default=60)
    parser.add_argument("--only-lists", action="store_true",
                        help="stop after the specimens, the name lists and the table")
    parser.add_argument("--only", nargs="+", metavar="FILE",
                        help="make only these picture files")
    args = parser.parse_args(argv)
    os.makedirs(args.work, exist_ok=True)

    manifest = corpus_labels.read_manifest()
    split_of_face = corpus_splits.split_of_faces()
    names = os.path.join(args.work, "names.txt")
    write_lines(names, [f["unique_name"] for f in manifest])
    write_lines(os.path.join(args.work, "sim_classes.txt"),
                [f["unique_name"] for f in manifest if split_of_face[f["unique_name"]] == "train"])
    out = lambda name: os.path.join(args.work, name)  # noqa: E731
    if not os.path.exists(out("specimens.bin")):
        run_parts(args.work, args.jobs, ["specimens", names], out("specimens.bin"))
    drawable = {manifest[label]["unique_name"] for label in images.specimen_labels(out("specimens.bin"))}
    table = choose_table(manifest, split_of_face, drawable)
    write_lines(os.path.join(args.work, "table.tsv"),
                [f"{i}\t{f['unique_name']}\t{f['family']}\t{f['style']}" for i, f in table])
    rec = os.path.join(args.work, "rec_classes.txt")
    write_lines(rec, [f["unique_name"] for i, f in table if len(i) == 12])
    system = sum(1 for i, _ in table if len(i) == 12)
    print(f"table: {system} system faces, {len(table) - system} library faces", flush=True)
    if args.only_lists:
        return 0
    runs = [("lines_first.bin", ["lines", rec, "--per-font", "20", "--seed", "1"]),  # the first stage's
            ("lines.bin", ["lines", rec, "--per-font", str(args.lines_per_font), "--seed", "1"]),
            ("lines_more.bin", ["lines", rec, "--per-font", str(args.lines_per_font), "--seed", "7"]),
            ("lines_third.bin", ["lines", rec, "--per-font", str(args.lines_per_font), "--seed", "8"]),
            ("lines_fourth.bin", ["lines", rec, "--per-font", str(args.lines_per_font), "--seed", "9"]),
            ("lines_validation.bin", ["lines", rec, "--per-font", "4", "--seed", "11"]),
            ("lines_clean_train.bin", ["lines", rec, "--per-font", "6", "--seed", "6", "--clean"]),
            ("lines_heldout.bin", ["lines", rec, "--per-font", "4", "--seed", "2"]),
            ("lines_clean.bin", ["lines", rec, "--per-font", "2", "--seed", "3", "--clean"]),
            ("lines_tall.bin", ["lines", rec, "--per-font", "1", "--seed", "4", "--tall"]),
            ("bands.bin", ["bands", os.path.join(args.work, "sim_classes.txt"), "--per-font", "2", "--seed", "5"])]
    if args.only:
        unknown = set(args.only) - {file for file, _ in runs}
        if unknown:
            parser.error(f"no picture file called {', '.join(sorted(unknown))}")
        runs = [run for run in runs if run[0] in args.only]
    for file, (mode, fonts, *options) in runs:
        if not os.path.exists(out(file)):  # deterministic: a file is only remade when removed
            run_parts(args.work, args.jobs, [mode, fonts, WORDS] + options, out(file))
    return 0


if __name__ == "__main__":
    sys.exit(main())
