#!/usr/bin/python3
"""Makes the shipped similarity pair and the recognition font table with the module's own code.

    training/run make_tables --work DIR [--out data]

1. Runs `fontrix index` with the corpus as the machine's fonts and a data folder holding the new
   similarity network (and a stand-in shipped pair that matches no font), so the module's
   similarity update draws and measures every corpus face and writes its cache files (into
   DIR/module-cache).
2. Takes the vectors of the 1,864 faces of DIR/table.tsv from those files and writes
   OUT/NQ_sim_fea_fs.bin and OUT/NQ_sim_meta_fs.bin: fields identifier, "0", "1" (never "0":
   that marks entries made on a user's machine), unique name, family, style.
3. Writes OUT/NQ_rec_font.bin: the same six lines for each recognition class (DIR/rec_classes.txt,
   the table's system faces), in the network's class order.
"""
import sys
import argparse
import os
import shutil
import subprocess
import tempfile

import numpy as np

from fontrix_training import images
from fontrix_training import BIN, DATA, WITH_CORPUS

FONTRIX = os.path.join(BIN, "fontrix")
DIM = 768
TABLE_SIZE = 1864


def read_meta(path):
    """Six-line groups of a meta file."""
    with open(path, encoding="utf-8") as f:
        lines = f.read().split("\n")
    return [lines[i:i + 6] for i in range(0, len(lines) - 5, 6)]


def read_cache(folder):
    """unique name -> vector, from the module's similarity cache files."""
    meta = read_meta(os.path.join(folder, "NQ_sim_meta_sys.cch"))
    vectors = np.fromfile(os.path.join(folder, "NQ_sim_fea_sys.cch"), "<f4").reshape(-1, DIM)
    if len(meta) != len(vectors):
        raise ValueError(f"cache holds {len(meta)} meta records and {len(vectors)} vectors")
    return {group[3]: vectors[i] for i, group in enumerate(meta)}


def read_table(path):
    with open(path, encoding="utf-8") as f:
        return [line.rstrip("\n").split("\t") for line in f if line.strip()]


def write_pair(rows, vectors, feature_path, meta_path):
    with open(feature_path + ".tmp", "wb") as f:
        for vector in vectors:
            f.write(np.asarray(vector, "<f4").tobytes())
    write_meta(rows, meta_path)
    os.replace(feature_path + ".tmp", feature_path)


def write_meta(rows, path):
    with open(path + ".tmp", "w", encoding="utf-8") as f:
        for identifier, name, family, style in rows:
            f.write(f"{identifier}\n0\n1\n{name}\n{family}\n{style}\n")
    os.replace(path + ".tmp", path)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--out", default=DATA)
    parser.add_argument("--reuse-cache", action="store_true", help="use the module cache already in DIR")
    args = parser.parse_args(argv)
    cache = os.path.join(args.work, "module-cache")
    if not args.reuse_cache:
        shutil.rmtree(cache, ignore_errors=True)
        os.makedirs(cache)
        with tempfile.TemporaryDirectory() as data:
            shutil.copy(os.path.join(args.out, "NQ_sim_model.dnm"), data)
            # The module loads its network only with a whole shipped pair; before there is one, a
            # stand-in of 1,864 all-zero entries that no font is named like.
            stand_in = [(f"bootstrap{i:05d}", f"(no font {i})", "none", "none") for i in range(TABLE_SIZE)]
            write_pair(stand_in, np.zeros((TABLE_SIZE, DIM), np.float32), os.path.join(data, "NQ_sim_fea_fs.bin"),
                       os.path.join(data, "NQ_sim_meta_fs.bin"))
            subprocess.run([WITH_CORPUS, FONTRIX, "--data-dir", data, "--cache-dir", cache,
                            "--disable", "classification,recognition", "index"], check=True)
    computed = read_cache(cache)
    rows = read_table(os.path.join(args.work, "table.tsv"))
    missing = [name for _, name, _, _ in rows if name not in computed]
    if missing:
        raise SystemExit(f"{len(missing)} table faces were not computed: {' '.join(missing[:10])}")
    vectors = [computed[name] for _, name, _, _ in rows]
    zero = [rows[i][1] for i, v in enumerate(vectors) if not np.any(v)]
    if zero:
        raise SystemExit(f"{len(zero)} table faces could not be drawn: {' '.join(zero[:10])}")
    write_pair(rows, vectors, os.path.join(args.out, "NQ_sim_fea_fs.bin"), os.path.join(args.out, "NQ_sim_meta_fs.bin"))
    row_of = {row[1]: row for row in rows}
    classes = [row_of[name] for name in images.read_names(os.path.join(args.work, "rec_classes.txt"))]
    write_meta(classes, os.path.join(args.out, "NQ_rec_font.bin"))
    print(f"{len(rows)} faces in the shipped similarity pair, {len(classes)} in the recognition font table", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
