#!/usr/bin/python3
"""Makes the known faces' data: every corpus face with where to get it, the similarity vectors of
those the shipped pair lacks, and every face's recognition line, all computed by the module
itself with the corpus as the machine's fonts.

    training/run make_known_faces [--data data] [--cache DIR] [--skip-index]

1. Runs `fontrix index` through corpus/with-corpus-fonts, so the module draws and reads every
   corpus face as an installed font (its similarity cache and its kept recognition lines, in the
   corpus folder's fontrix-cache; ~31 ms of CPU a face). --skip-index takes what is there.
2. Writes into the data folder (same names as similarity/known_faces.h reads):
   NQ_known_faces.tsv       one face a line: unique name, family (the corpus labels' family, as
                            people name it: "Montserrat", not "Montserrat Thin"), style, CSS
                            weight, italic, source ("debian:PACKAGE" or "npm:@fontsource/ID"),
                            licence, and "shipped", a row of the vectors file, or "none";
   NQ_sim_fea_known.bin     the vectors of the faces the shipped pair lacks, 16-bit;
   NQ_rec_lines_known.bin   every face's recognition line in the file's order, each value's
                            square root at unit length (how the module compares lines with
                            known faces), 16-bit (zeros for a face in which no line could be
                            drawn).
Both binary files carry the check sum of the network they were made with; the module refuses
them with another.
"""
import argparse
import os
import re
import struct
import subprocess
import sys

import numpy as np

from fontrix_training import BIN, CORPUS, DATA, WITH_CORPUS, tab_rows
from fontrix_training.check_sum import check_sum

DIM = 768
MAGIC = b"FXVEC16\n"
SCALE = 32767.0
HEADER = "unique_name\tfamily\tstyle\tweight\titalic\tsource\tlicence\tvector"
NPM_WEIGHT = re.compile(r"-(\d{3})-(normal|italic)\.woff2$")
# Names a font may give as its family that are CSS's and fontconfig's generic families: a known
# face so named would answer for every request of that generic family.
GENERIC = {"sans", "serif", "mono", "monospace", "sans-serif", "cursive", "fantasy", "system-ui"}


def pack(rows, network):
    """The bytes of a packed vectors file (shell/packed_vectors.h)."""
    rows = np.asarray(rows, "<f4")
    values = np.rint(np.clip(rows, -1, 1) * SCALE).astype("<i2").tobytes()
    dim = rows.shape[1] if rows.ndim == 2 else 0
    return MAGIC + struct.pack("<IIQQ", len(rows), dim, network, check_sum(values)) + values


def unpack(data):
    """(rows as floats, network sum) of a packed vectors file; raises ValueError when damaged."""
    if data[:8] != MAGIC:
        raise ValueError("not a file of packed vectors")
    rows, dim, network, total = struct.unpack("<IIQQ", data[8:32])
    values = data[32:]
    if len(values) != rows * dim * 2 or check_sum(values) != total:
        raise ValueError("damaged")
    return np.frombuffer(values, "<i2").reshape(rows, dim).astype("<f4") / SCALE, network


def read_lines(path):
    """(network sum, {name: unit vector or None}) of the module's kept lines (version 3)."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] != b"FXRL" or struct.unpack_from("<I", data, 4)[0] != 3:
        raise ValueError(f"{path} is not a file of kept lines of version 3")
    network, values, count = struct.unpack_from("<QII", data, 8)
    at, lines = 24, {}
    for _ in range(count):
        (length,) = struct.unpack_from("<I", data, at)
        name = data[at + 4:at + 4 + length].decode()
        at += 4 + length
        drawn = data[at]
        at += 1
        if drawn:
            lines[name] = np.frombuffer(data, "<f4", values, at).copy()
            at += 4 * values
        else:
            lines[name] = None
        at += 8  # the line's check sum
    return network, lines


def read_similarity_cache(folder):
    with open(os.path.join(folder, "NQ_sim_meta_sys.cch"), encoding="utf-8") as f:
        lines = f.read().split("\n")
    names = [lines[i + 3] for i in range(0, len(lines) - 5, 6)]
    vectors = np.fromfile(os.path.join(folder, "NQ_sim_fea_sys.cch"), "<f4").reshape(-1, DIM)
    if len(names) != len(vectors):
        raise ValueError(f"{folder}: {len(names)} names and {len(vectors)} vectors")
    return dict(zip(names, vectors))


def shipped_names(data):
    with open(os.path.join(data, "NQ_sim_meta_fs.bin"), encoding="utf-8") as f:
        lines = f.read().split("\n")
    return {lines[i + 3] for i in range(0, len(lines) - 5, 6)}


def corpus_faces():
    """The manifest's faces with the labels' family names and npm weights from the file names."""
    families = {row[0]: row[3] for _, row in tab_rows(os.path.join(CORPUS, "labels.tsv")) if row[0] != "unique_name"}
    faces = []
    for _, row in tab_rows(os.path.join(CORPUS, "manifest.tsv")):
        if row[0] == "unique_name":
            continue
        name, family, style, weight, italic, path, package, licence = row[:8]
        match = NPM_WEIGHT.search(path)
        if match:  # the manifest's weight is what fontconfig made of the file; the file name says the CSS one
            weight = match.group(1)
        family = families.get(name, family)
        if family.lower() in GENERIC:  # such as arkpandora's Aerial: its unique name says what it is
            family = name.split("-")[0]
        faces.append({"name": name, "family": family, "style": style, "weight": int(weight),
                      "italic": int(italic), "source": package.split("=")[0], "licence": licence or "unknown",
                      "file": path})
    return faces


def root_line(values):
    """Each value's square root, at unit length (the lines' values are 0 or more)."""
    root = np.sqrt(np.maximum(values, 0))
    return root / max(np.linalg.norm(root), 1e-12)


def clean(text):
    return " ".join(text.replace("\t", " ").split())


def write(path, data):
    with open(path + ".tmp", "wb") as f:
        f.write(data)
    os.replace(path + ".tmp", path)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--data", default=DATA)
    parser.add_argument("--cache", default=os.path.join(os.environ.get(
        "FONTRIX_CORPUS_DIR", os.path.expanduser("~/.cache/fontrix-corpus")), "fontrix-cache"))
    parser.add_argument("--skip-index", action="store_true")
    args = parser.parse_args(argv)
    if not args.skip_index:
        subprocess.run([WITH_CORPUS, os.path.join(BIN, "fontrix"), "--data-dir", args.data, "index"], check=True)
    line_network, lines = read_lines(os.path.join(args.cache, "FontRecognitionLines.bin"))
    vectors = read_similarity_cache(args.cache)
    with open(os.path.join(args.data, "NQ_sim_model.dnm"), "rb") as f:
        sim_network = check_sum(f.read())
    with open(os.path.join(args.data, "NQ_rec_model.dnm"), "rb") as f:
        if check_sum(f.read()) != line_network:
            sys.exit("the kept lines were read with another recognition network than the data folder's: index again")
    shipped = shipped_names(args.data)
    faces = corpus_faces()
    rows, known_vectors, line_rows = [HEADER], [], []
    dim = next(len(v) for v in lines.values() if v is not None)
    missing = {"vector": 0, "line": 0}
    for face in faces:
        name = face["name"]
        if name in shipped:
            where = "shipped"
        elif name in vectors and np.any(vectors[name]):
            where = str(len(known_vectors))
            known_vectors.append(vectors[name])
        else:
            where = "none"
            missing["vector"] += 1
        line = lines.get(name)
        if line is None:
            missing["line"] += 1
        line_rows.append(root_line(line) if line is not None else np.zeros(dim, "<f4"))
        rows.append("\t".join([name, clean(face["family"]), clean(face["style"]), str(face["weight"]),
                               str(face["italic"]), face["source"], clean(face["licence"]), where]))
    comment = ("# The open faces Fontrix knows whether or not they are installed: the training corpus, "
               "made by training/run make_known_faces.\n")
    write(os.path.join(args.data, "NQ_sim_fea_known.bin"), pack(np.array(known_vectors), sim_network))
    write(os.path.join(args.data, "NQ_rec_lines_known.bin"), pack(np.array(line_rows), line_network))
    write(os.path.join(args.data, "NQ_known_faces.tsv"), (comment + "\n".join(rows) + "\n").encode())
    print(f"{len(faces)} faces: {len(known_vectors)} vectors beside the shipped pair's, lines of {dim} values; "
          f"without a vector {missing['vector']}, without a line {missing['line']}")


if __name__ == "__main__":
    main()
