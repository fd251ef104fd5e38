#!/usr/bin/python3
"""Letter likeness: how alike two faces' letters look, measured on the letters themselves; the
teacher that similarity training is to follow instead of family membership.

    training/run letter_likeness [--work DIR] [--keep K] [--jobs N]
    training/run letter_likeness [--work DIR] [--sheet FILE.png [NAME ...]] [--validate]

Every face of the corpus manifest is drawn by the reference host's font engine, through the
same glue procedures the module binds (DrawText into a raster port), with the corpus as the
machine's only fonts: a-z, A-Z and 0-9, each glyph on its own, at one size to the em, its
baseline on a fixed row and its ink's centroid in the middle across, cut to a square of
GLYPH_EM ems and brought down to CELL x CELL pixels of ink coverage. Slightly blurred, the 62
cells side by side are the face's letter vector, with the glyphs' advances appended; two faces
are as far apart as their letter vectors (Euclidean), so weight, slant, width, contrast,
serifs, x-height and proportions all count, and the placement of letters in a line does not
(the advances only a little).

Writes DIR/teacher/neighbours-DIGEST.npz: the faces' names, and per face its KEEP nearest other
faces (indices into the names, nearest first) and their distances. DIGEST covers the manifest,
the drawing and distance settings and the host library that draws, so a second run with nothing
changed reads the file instead. The drawn letters are kept beside it (letters-DIGEST.npz), so a
change of the distance settings alone does not draw again.

`--sheet` draws a contact sheet: per query face (well-known ones by default), the face and its
8 nearest by the teacher, each as a line of letters with its name. `--validate` prints the
figures of REPORT.md: how often a twin (the same letters under another name) comes first, how
often a bold is nearer other families' bolds than its own regular, and how far the teacher's
order agrees with the style classes.
"""
import argparse
import ctypes
import hashlib
import os
import subprocess
import sys
import tempfile
import time

import numpy as np

from fontrix_training.corpus import labels as corpus_labels
from fontrix_training import BIN, REPO, TRAINING, WITH_CORPUS

HOST_LIBRARY = os.path.join(REPO, "build", "lib", "libfontrix_host.so")
DEFAULT_WORK = os.path.expanduser("~/.cache/fontrix-training")

CHARACTERS = "abcdefghijklmnopqrstuvwxyz" "ABCDEFGHIJKLMNOPQRSTUVWXYZ" "0123456789"
# A glyph's cell: CELL x CELL pixels over a square GLYPH_EM ems a side, whose top lies ABOVE ems
# over the baseline. 1.25 em holds an ordinary face's ascenders, descenders and widest capitals
# (W, M) at about 26 pixels to the em, where stems, serifs and contrast still show; only swashes
# and very wide display letters are cut.
CELL = 32
GLYPH_EM = 1.25
ABOVE = 0.95
# Glyphs are drawn at OVERSAMPLE times the cell's resolution and averaged down, so the cell holds
# coverage rather than one anti-aliased sampling, and centring is good to 1/OVERSAMPLE pixel.
OVERSAMPLE = 4
# How far right and left of its origin a glyph is drawn before it is centred (ems).
DRAW_LEFT, DRAW_RIGHT = 1.0, 2.5
# Blur of the cells (Gaussian sigma, cell pixels): outlines that differ by a fraction of a pixel,
# another foundry's cut of one design or one face placed half a pixel apart, come out nearly
# equal, while a stem a pixel heavier (a weight step) still shows.
BLUR = 0.8
# The advances (ems) enter the vector times ADVANCE_WEIGHT: a face respaced by 0.05 em a letter
# moves by ADVANCE_WEIGHT * 0.05 * sqrt(62) = 1.6, less than another foundry's cut of its design
# (2-3) and a fifth of a neighbouring weight (about 8; REPORT.md has the scale).
ADVANCE_WEIGHT = 4.0
KEEP = 50
# The contact sheet: queries (a sans and its metric clones, a bold, a script, a slab serif, a
# monospace, a blackletter), how many neighbours a row shows, and each face's sample line.
SHEET_QUERIES = ("LiberationSans", "Arimo", "NimbusSans-Regular", "TeXGyreHeros-Regular", "DejaVuSans-Bold",
                 "Roboto-Regular", "GreatVibes-Regular", "RobotoSlab-Regular", "CourierPrime-Regular",
                 "UnifrakturMaguntia")
SHEET_NEIGHBOURS = 8
SAMPLE_TEXT = "Hamburgefonts RQW 2459"
SAMPLE_SIZE = 22
SAMPLE_WIDTH = 330
# Two faces are twins (the same letters under two names) when every advance agrees within
# TWIN_ADVANCE ems and their specimens, as the similarity update draws them, are drawn alike
# (evaluate.py's drawn_alike: both cases as wide within 3 %, under 4 grey levels apart on
# average). Neither test looks at the teacher's cells.
TWIN_ADVANCE = 0.002
TWIN_WIDTH = 0.03
TWIN_GREY = 4
# Distance bands for the figures (the teacher's units: see REPORT.md).
DISTANCE_BANDS = ((0, 1), (1, 5), (5, 10), (10, 15), (15, 20), (20, 30), (30, np.inf))
# The drawing processes run this module's main(), with the package's folder on their path.
ENTRY_POINT = ["-m", "fontrix_training.letter_likeness"]


def drawing_environment(env=None):
    """`env` (or this process's) with training/ first on Python's path."""
    env = dict(os.environ if env is None else env)
    env["PYTHONPATH"] = TRAINING + (os.pathsep + env["PYTHONPATH"] if env.get("PYTHONPATH") else "")
    return env


SPECIMEN_TOOL = os.path.join(BIN, "training-images")
# Version of the drawing and of the files' layout; part of every digest.
FORMAT = "letters-1"

QVErr = ctypes.c_uint32
VoidP = ctypes.c_void_p


class _Options(ctypes.Structure):
    _fields_ = [("data_dir", ctypes.c_char_p), ("cache_dir", ctypes.c_char_p), ("disable", ctypes.c_char_p)]


class _FontSuite(ctypes.Structure):  # QVFontSuite, sdk/qv_font_suites.h
    _fields_ = [("CountFonts", ctypes.CFUNCTYPE(QVErr, ctypes.POINTER(ctypes.c_int32))),
                ("IndexFontList", ctypes.CFUNCTYPE(QVErr, ctypes.c_int32, ctypes.POINTER(VoidP))),
                ("GetFontNames", ctypes.CFUNCTYPE(QVErr, VoidP, ctypes.POINTER(ctypes.c_char_p),
                                                  ctypes.POINTER(ctypes.c_char_p), ctypes.POINTER(ctypes.c_char_p))),
                ("GetFontFile", ctypes.CFUNCTYPE(QVErr, VoidP, ctypes.POINTER(ctypes.c_char_p),
                                                 ctypes.POINTER(ctypes.c_int32))),
                ("FindFontByName", ctypes.CFUNCTYPE(QVErr, ctypes.c_char_p, ctypes.POINTER(VoidP)))]


class _GlueSuite(ctypes.Structure):  # QVFontGlueSuite, sdk/qv_font_suites.h
    _fields_ = [("IsBitmapOnly", VoidP), ("IsSymbolFont", VoidP), ("IsDuplicateName", VoidP), ("GetFontKind", VoidP),
                ("GetEngineInterface", ctypes.CFUNCTYPE(QVErr, ctypes.POINTER(VoidP))),
                ("GetEngineProcedure", ctypes.CFUNCTYPE(QVErr, VoidP, ctypes.c_char_p, ctypes.POINTER(VoidP)))]


class _IntRect(ctypes.Structure):
    _fields_ = [("left", ctypes.c_int32), ("top", ctypes.c_int32), ("right", ctypes.c_int32),
                ("bottom", ctypes.c_int32)]


class _GreyPixels(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int32), ("height", ctypes.c_int32), ("rowBytes", ctypes.c_int32),
                ("pixels", ctypes.POINTER(ctypes.c_uint8))]


# The engine procedures used, as sdk/qv_font_engine.h declares them.
_PROCEDURES = {
    "GetGlyphByCode": ctypes.CFUNCTYPE(QVErr, VoidP, ctypes.c_uint32, ctypes.POINTER(ctypes.c_uint32)),
    "GetAdvanceWidth": ctypes.CFUNCTYPE(QVErr, VoidP, ctypes.c_uint32, ctypes.POINTER(ctypes.c_double)),
    "NewRasterPort": ctypes.CFUNCTYPE(QVErr, ctypes.POINTER(_IntRect), ctypes.POINTER(VoidP)),
    "DrawText": ctypes.CFUNCTYPE(QVErr, VoidP, VoidP, ctypes.c_char_p, ctypes.c_double),
    "GetRasterPortPixels": ctypes.CFUNCTYPE(QVErr, VoidP, ctypes.POINTER(_IntRect), ctypes.POINTER(_GreyPixels)),
    "DisposeRasterPort": ctypes.CFUNCTYPE(QVErr, VoidP),
}


class EngineFonts:
    """The installed fonts as the reference host lists and draws them (libfontrix_host), with
    no service of the module started. One per process, as the host allows; use as a context
    manager. The fonts are those fontconfig lists for this process: run under
    corpus/with-corpus-fonts for the corpus."""

    def __init__(self, library=HOST_LIBRARY):
        self._lib = ctypes.CDLL(library)
        self._lib.fontrix_host_open.restype = VoidP
        self._lib.fontrix_host_open.argtypes = [ctypes.POINTER(_Options)]
        self._lib.fontrix_host_acquire_suite.restype = VoidP
        self._lib.fontrix_host_acquire_suite.argtypes = [VoidP, ctypes.c_char_p, ctypes.c_int32]
        self._lib.fontrix_host_last_error.restype = ctypes.c_char_p
        self._lib.fontrix_host_close.argtypes = [VoidP]
        # Only the host's fonts and engine are used: no service needs to start.
        options = _Options(None, None, b"classification,similarity,recognition")
        self._host = self._lib.fontrix_host_open(ctypes.byref(options))
        if not self._host:
            raise RuntimeError("the reference host did not open: " + self._lib.fontrix_host_last_error().decode())
        self._fonts = _FontSuite.from_address(self._suite(b"QV Font Suite"))
        glue = _GlueSuite.from_address(self._suite(b"QV Font Glue Suite"))
        engine = VoidP()
        self._check(glue.GetEngineInterface(ctypes.byref(engine)), "GetEngineInterface")
        self._proc = {}
        for name, kind in _PROCEDURES.items():
            address = VoidP()
            self._check(glue.GetEngineProcedure(engine, name.encode(), ctypes.byref(address)), name)
            self._proc[name] = kind(address.value)

    def _suite(self, name):
        suite = self._lib.fontrix_host_acquire_suite(self._host, name, 1)
        if not suite:
            raise RuntimeError(f"the host has no {name.decode()}")
        return suite

    @staticmethod
    def _check(err, what):
        if err:
            raise RuntimeError(f"{what} failed (error {err:#x})")

    def close(self):
        if self._host:
            self._lib.fontrix_host_close(self._host)
            self._host = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def names(self):
        """Every listed face's unique name."""
        count = ctypes.c_int32()
        self._check(self._fonts.CountFonts(ctypes.byref(count)), "CountFonts")
        found = []
        for i in range(count.value):
            font, unique, family, style = VoidP(), ctypes.c_char_p(), ctypes.c_char_p(), ctypes.c_char_p()
            self._check(self._fonts.IndexFontList(i, ctypes.byref(font)), "IndexFontList")
            self._check(self._fonts.GetFontNames(font, ctypes.byref(unique), ctypes.byref(family), ctypes.byref(style)),
                        "GetFontNames")
            found.append(unique.value.decode("utf-8", "replace"))
        return found

    def find(self, name):
        """The face of that unique name, or None when none is listed."""
        font = VoidP()
        return font if self._fonts.FindFontByName(name.encode(), ctypes.byref(font)) == 0 else None

    def draw(self, font, text, size, bounds):
        """`text` drawn at `size` pixels to the em into a white port of `bounds` (left, top, right,
        bottom; pixels, y down, the baseline origin at (0, 0)): uint8 rows, 0 ink, 255 paper."""
        port = VoidP()
        self._check(self._proc["NewRasterPort"](ctypes.byref(_IntRect(*bounds)), ctypes.byref(port)), "NewRasterPort")
        try:
            self._check(self._proc["DrawText"](port, font, text.encode(), size), "DrawText")
            got, pixels = _IntRect(), _GreyPixels()
            self._check(self._proc["GetRasterPortPixels"](port, ctypes.byref(got), ctypes.byref(pixels)),
                        "GetRasterPortPixels")
            raw = np.ctypeslib.as_array(pixels.pixels, (pixels.height, pixels.rowBytes))
            return raw[:, :pixels.width].copy()
        finally:
            self._proc["DisposeRasterPort"](port)

    def advance(self, font, character):
        """The advance of the glyph `character` maps to, in ems; None when the face has none."""
        glyph, advance = ctypes.c_uint32(), ctypes.c_double()
        if self._proc["GetGlyphByCode"](font, ord(character), ctypes.byref(glyph)):
            return None
        self._check(self._proc["GetAdvanceWidth"](font, glyph, ctypes.byref(advance)), "GetAdvanceWidth")
        return advance.value / 1000.0


def shifted(ink, start, width):
    """Columns start .. start + width of `ink`, paper (0) where they fall outside it."""
    out = np.zeros((ink.shape[0], width), ink.dtype)
    lo, hi = max(start, 0), min(start + width, ink.shape[1])
    if lo < hi:
        out[:, lo - start:hi - start] = ink[:, lo:hi]
    return out


def glyph_cells(fonts, font):
    """(cells, advances) of a face: cells uint8 (62, CELL, CELL), each CHARACTERS glyph's ink
    coverage (255 full) with the baseline on one row and the ink's centroid mid-cell; advances
    float32 (62,) in ems. None when a glyph is missing or draws no ink."""
    side = CELL * OVERSAMPLE
    size = side / GLYPH_EM  # pixels to the em, drawn
    top = -round(ABOVE * size)
    bounds = (-round(DRAW_LEFT * size), top, round(DRAW_RIGHT * size), top + side)
    cells = np.empty((len(CHARACTERS), CELL, CELL), np.uint8)
    advances = np.empty(len(CHARACTERS), np.float32)
    for k, character in enumerate(CHARACTERS):
        advance = fonts.advance(font, character)
        if advance is None:
            return None
        ink = 255 - fonts.draw(font, character, size, bounds).astype(np.float32)
        mass = ink.sum(0)
        if not mass.any():
            return None
        # The ink's centroid onto the cell's centre, moved by a fraction of a pixel too (linear
        # interpolation), so that a glyph drawn a little further along lands where it did; the
        # ink box would jump by a pixel as a faint edge column comes or goes.
        offset = (mass * (np.arange(ink.shape[1]) + 0.5)).sum() / mass.sum() - side / 2
        whole = int(np.floor(offset))
        placed = (1 - (offset - whole)) * shifted(ink, whole, side) + (offset - whole) * shifted(ink, whole + 1, side)
        cells[k] = np.rint(placed.reshape(CELL, OVERSAMPLE, CELL, OVERSAMPLE).mean((1, 3)))
        advances[k] = advance
    return cells, advances


def draw_faces(names, library=HOST_LIBRARY):
    """(drawn names, cells (n, 62, CELL, CELL) uint8, advances (n, 62) float32, failed names) for
    the faces of `names` the installed fonts hold and glyph_cells can draw."""
    drawn, all_cells, all_advances, failed = [], [], [], []
    with EngineFonts(library) as fonts:
        for name in names:
            font = fonts.find(name)
            result = glyph_cells(fonts, font) if font else None
            if result is None:
                failed.append(name)
                continue
            drawn.append(name)
            all_cells.append(result[0])
            all_advances.append(result[1])
    shape = (len(drawn), len(CHARACTERS))
    return (drawn, np.stack(all_cells) if drawn else np.zeros(shape + (CELL, CELL), np.uint8),
            np.stack(all_advances) if drawn else np.zeros(shape, np.float32), failed)


def blur_cells(cells, sigma=BLUR):
    """Coverage (..., CELL, CELL) as float32 in 0-1, blurred by a Gaussian of `sigma` pixels
    (separable; the cell's outside counts as paper)."""
    radius = int(np.ceil(3 * sigma))
    taps = np.exp(-np.arange(-radius, radius + 1) ** 2 / (2 * sigma * sigma))
    taps = (taps / taps.sum()).astype(np.float32)
    x = cells.astype(np.float32) / 255
    for axis in (-1, -2):
        padded = np.pad(x, [(0, 0)] * (x.ndim - 2) + ([(0, 0), (radius, radius)] if axis == -1
                                                      else [(radius, radius), (0, 0)]))
        x = sum(t * np.take(padded, np.arange(i, i + CELL), axis=axis) for i, t in enumerate(taps))
    return x.astype(np.float32)


def letter_vectors(cells, advances, sigma=BLUR, advance_weight=ADVANCE_WEIGHT):
    """The faces' letter vectors (n, 62 * CELL * CELL + 62), float32: blurred cells, then the
    advances times `advance_weight`."""
    n = len(cells)
    out = np.empty((n, cells[0].size + advances.shape[1]), np.float32)
    for start in range(0, n, 256):  # blurring a block at a time keeps the float copies small
        block = slice(start, min(n, start + 256))
        out[block, :cells[0].size] = blur_cells(cells[block], sigma).reshape(block.stop - block.start, -1)
    out[:, cells[0].size:] = advance_weight * advances
    return out


def nearest(vectors, keep=KEEP, block=512):
    """For each row of `vectors`, the `keep` nearest other rows (indices, nearest first, ties by
    index) and their Euclidean distances, from |a|^2 + |b|^2 - 2 a.b computed in float32 blocks
    of rows against all rows (float64 would double the time and memory for no change in order
    beyond float32's rounding of equal faces, which are 0 apart either way)."""
    n = len(vectors)
    keep = min(keep, n - 1)
    norms = np.einsum("ij,ij->i", vectors, vectors)
    indices = np.empty((n, keep), np.int32)
    distances = np.empty((n, keep), np.float32)
    for start in range(0, n, block):
        stop = min(n, start + block)
        squared = norms[start:stop, None] + norms[None, :] - 2 * (vectors[start:stop] @ vectors.T)
        np.maximum(squared, 0, out=squared)
        squared[np.arange(stop - start), np.arange(start, stop)] = np.inf
        order = np.argsort(squared, axis=1, kind="stable")[:, :keep]  # itself is infinite: last
        indices[start:stop] = order
        distances[start:stop] = np.sqrt(np.take_along_axis(squared, order, 1))
    return indices, distances


def pair_distances(vectors):
    """Euclidean distances between every pair of rows (n, n), float32, by the same product as
    `nearest`; the diagonal is 0."""
    vectors = vectors - vectors.mean(0)  # as in `teacher`: small norms, little cancellation
    norms = np.einsum("ij,ij->i", vectors, vectors)
    squared = norms[:, None] + norms[None, :] - 2 * (vectors @ vectors.T)
    squared = np.maximum((squared + squared.T) / 2, 0)
    np.fill_diagonal(squared, 0)
    return np.sqrt(squared)


def file_digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(1 << 20), b""):
            h.update(chunk)
    return h.hexdigest()


def drawing_digest(manifest_path, library):
    """What the drawn letters depend on: the manifest (its faces, files and package versions),
    the drawing settings and the host library that draws."""
    h = hashlib.sha256()
    h.update(repr((FORMAT, CHARACTERS, CELL, GLYPH_EM, ABOVE, OVERSAMPLE, DRAW_LEFT, DRAW_RIGHT)).encode())
    with open(manifest_path, "rb") as f:
        h.update(f.read())
    h.update(file_digest(library).encode())
    return h.hexdigest()[:16]


def neighbours_digest(drawing, sigma, advance_weight, keep):
    return hashlib.sha256(repr((drawing, sigma, advance_weight, keep)).encode()).hexdigest()[:16]


def save_npz(path, **arrays):
    """np.savez into `path` through a temporary file, so a half-written file is never read."""
    tmp = path + ".tmp.npz"
    np.savez(tmp, **arrays)
    os.replace(tmp, path)


def draw_corpus(names, out, jobs, library):
    """Draws the corpus faces `names` in `jobs` processes under with-corpus-fonts; saves and
    returns (drawn names, cells, advances, failed names)."""
    with tempfile.TemporaryDirectory(dir=os.path.dirname(out)) as tmp:
        listing = os.path.join(tmp, "names.txt")
        with open(listing, "w", encoding="utf-8") as f:
            f.write("".join(n + "\n" for n in names))
        parts = [os.path.join(tmp, f"part{k}.npz") for k in range(jobs)]
        procs = [subprocess.Popen([WITH_CORPUS, sys.executable, *ENTRY_POINT, "--draw-part",
                                   f"{k}/{jobs}", listing, parts[k], "--host-library", library],
                                  env=drawing_environment())
                 for k in range(jobs)]
        if any(p.wait() != 0 for p in procs):
            raise RuntimeError("drawing the corpus's letters failed")
        loaded = [np.load(p) for p in parts]
        # Parts hold every jobs-th face from the k-th: put them back in the list's order.
        position = {n: i for i, n in enumerate(names)}
        drawn = [str(n) for part in loaded for n in part["names"]]
        order = np.argsort([position[n] for n in drawn], kind="stable")
        cells = np.concatenate([part["cells"] for part in loaded])[order]
        advances = np.concatenate([part["advances"] for part in loaded])[order]
        drawn = [drawn[i] for i in order]
        failed = sorted((str(n) for part in loaded for n in part["failed"]), key=position.get)
    save_npz(out, names=np.array(drawn), cells=cells, advances=advances, failed=np.array(failed, dtype=str))
    return drawn, cells, advances, failed


def teacher(work, keep=KEEP, jobs=2, library=HOST_LIBRARY, manifest_path=corpus_labels.MANIFEST, log=print):
    """The corpus's letter neighbours: {"names", "indices" (n, keep), "distances" (n, keep),
    "failed"}, computed or read from work/teacher/ under their digest."""
    folder = os.path.join(work, "teacher")
    os.makedirs(folder, exist_ok=True)
    drawing = drawing_digest(manifest_path, library)
    digest = neighbours_digest(drawing, BLUR, ADVANCE_WEIGHT, keep)
    path = os.path.join(folder, f"neighbours-{digest}.npz")
    if os.path.exists(path):
        log(f"letter likeness: {path} is up to date")
        return dict(np.load(path))
    letters = os.path.join(folder, f"letters-{drawing}.npz")
    if os.path.exists(letters):
        with np.load(letters) as f:
            names, cells, advances, failed = [str(n) for n in f["names"]], f["cells"], f["advances"], list(f["failed"])
        log(f"letter likeness: letters of {len(names)} faces read from {letters}")
    else:
        started = time.time()
        names = [face["unique_name"] for face in corpus_labels.read_manifest(manifest_path)]
        names, cells, advances, failed = draw_corpus(names, letters, jobs, library)
        log(f"letter likeness: {len(names)} faces drawn in {time.time() - started:.0f} s"
            + (f"; not drawn: {', '.join(failed)}" if failed else ""))
    started = time.time()
    vectors = letter_vectors(cells, advances)
    # Distances do not change when every vector moves alike; centred, the norms are near the
    # distances themselves, so float32 loses little to cancellation and twins come out near 0.
    vectors -= vectors.mean(0)
    indices, distances = nearest(vectors, keep)
    log(f"letter likeness: {keep} nearest of {len(names)} faces in {time.time() - started:.0f} s")
    result = {"names": np.array(names), "indices": indices, "distances": distances,
              "failed": np.array(failed, dtype=str)}
    save_npz(path, **result)
    log(f"letter likeness: written {path}")
    return result


def draw_samples(names, library=HOST_LIBRARY, text=SAMPLE_TEXT, size=SAMPLE_SIZE, width=SAMPLE_WIDTH):
    """uint8 (n, rows, width): `text` drawn in each face of `names` at `size` pixels to the em,
    its baseline on one row, cut or padded to `width` columns (paper where a face is missing)."""
    top = -round(1.05 * size)
    bounds = (-round(0.2 * size), top, width, round(0.35 * size))
    out = np.full((len(names), bounds[3] - top, width), 255, np.uint8)
    with EngineFonts(library) as fonts:
        for i, name in enumerate(names):
            font = fonts.find(name)
            if font:
                drawn = fonts.draw(font, text, size, bounds)
                inked = np.flatnonzero((drawn < 255).any(0))
                if inked.size:
                    drawn = drawn[:, inked[0]:]
                    out[i, :, :min(width, drawn.shape[1])] = drawn[:, :width]
    return out


def corpus_samples(names, library=HOST_LIBRARY):
    """draw_samples over the corpus faces, in a process under with-corpus-fonts."""
    with tempfile.TemporaryDirectory() as tmp:
        listing, out = os.path.join(tmp, "names.txt"), os.path.join(tmp, "samples.npy")
        with open(listing, "w", encoding="utf-8") as f:
            f.write("".join(n + "\n" for n in names))
        subprocess.run([WITH_CORPUS, sys.executable, *ENTRY_POINT, "--draw-samples", listing, out,
                        "--host-library", library], check=True, env=drawing_environment())
        return np.load(out)


def sheet_rows(result, queries, neighbours=SHEET_NEIGHBOURS):
    """[(query, [(neighbour, distance), ...])] for the queries the teacher knows."""
    index = {str(n): i for i, n in enumerate(result["names"])}
    return [(q, [(str(result["names"][k]), float(d)) for k, d in
                 zip(result["indices"][index[q]][:neighbours], result["distances"][index[q]][:neighbours])])
            for q in queries if q in index]


def contact_sheet(rows, samples, out):
    """A PNG of `rows` (sheet_rows): per row the query's sample, then each neighbour's, each
    under its name (and distance); samples maps a name to its draw_samples picture."""
    from PIL import Image, ImageDraw, ImageFont
    label_font = ImageFont.load_default()
    label, pad = 12, 6
    rows_high = next(iter(samples.values())).shape[0]
    cell_w, cell_h = SAMPLE_WIDTH + 2 * pad, label + rows_high + 2 * pad
    columns = 1 + max(len(r[1]) for r in rows)
    sheet = Image.new("L", (columns * cell_w, len(rows) * cell_h), 255)
    draw = ImageDraw.Draw(sheet)
    for r, (query, found) in enumerate(rows):
        y = r * cell_h
        for c, (name, distance) in enumerate([(query, None)] + found):
            x = c * cell_w
            caption = name if distance is None else f"{name}  {distance:.1f}"
            draw.text((x + pad, y + pad), caption[:40], fill=0, font=label_font)
            sheet.paste(Image.fromarray(samples[name]), (x + pad, y + pad + label))
        if r:
            draw.line([(0, y), (sheet.width, y)], fill=160)
        draw.line([(cell_w - 1, y), (cell_w - 1, y + cell_h)], fill=160)
    sheet.save(out, optimize=True)


def module_specimens(names):
    """{name: (lower, upper)} as the similarity update draws them (training-images specimens,
    under with-corpus-fonts); faces it cannot draw are missing."""
    from fontrix_training import images
    with tempfile.TemporaryDirectory() as tmp:
        listing, out = os.path.join(tmp, "names.txt"), os.path.join(tmp, "specimens.bin")
        with open(listing, "w", encoding="utf-8") as f:
            f.write("".join(n + "\n" for n in names))
        subprocess.run([WITH_CORPUS, SPECIMEN_TOOL, "specimens", listing, out], check=True, stderr=subprocess.DEVNULL)
        return {names[label]: strips for label, strips in images.read_specimens(out).items()}


def drawn_alike(a, b):
    """evaluate.py's test of two specimen pairs (lower, upper) drawn the same (kept here so the
    teacher needs no PyTorch): each case as wide within TWIN_WIDTH and, over the common width,
    under TWIN_GREY grey levels apart on average."""
    for x, y in zip(a, b):
        wide, narrow = max(x.shape[1], y.shape[1]), min(x.shape[1], y.shape[1])
        if wide - narrow > TWIN_WIDTH * wide:
            return False
        if np.abs(x[:, :narrow].astype(np.int16) - y[:, :narrow]).mean() >= TWIN_GREY:
            return False
    return True


def twin_pairs(names, advances, families):
    """Pairs (i, j), i < j, of faces of different families that are twins (TWIN_ADVANCE, then
    drawn_alike on the module's specimens)."""
    key = np.rint(advances / TWIN_ADVANCE).astype(np.int64)
    order = np.lexsort(key.T[::-1])
    groups, run = [], [order[0]]
    for a, b in zip(order[:-1], order[1:]):
        if np.abs(advances[a] - advances[b]).max() <= TWIN_ADVANCE:
            run.append(b)
        else:
            groups.append(run)
            run = [b]
    groups.append(run)
    candidates = [(i, j) for g in groups for x, i in enumerate(g) for j in g[x + 1:] if families[i] != families[j]]
    specimens = module_specimens([names[i] for i in sorted({k for pair in candidates for k in pair})])
    return sorted((min(i, j), max(i, j)) for i, j in candidates
                  if names[i] in specimens and names[j] in specimens
                  and drawn_alike(specimens[names[i]], specimens[names[j]]))


def validate(result, letters_path, manifest_path=corpus_labels.MANIFEST):
    """Markdown lines of the teacher's figures: twins, bolds, families."""
    from fontrix_training.corpus import splits as corpus_splits
    faces = {f["unique_name"]: f for f in corpus_labels.read_manifest(manifest_path)}
    names = [str(n) for n in result["names"]]
    indices, distances = result["indices"], result["distances"]
    family = [corpus_splits.family_key(faces[n]["family"]) for n in names]
    with np.load(letters_path) as f:
        if [str(n) for n in f["names"]] != names:
            raise ValueError(f"{letters_path} does not hold the teacher's faces")
        advances = f["advances"]
    lines = []

    # Twins: is a twin the first face of another family?
    twins = twin_pairs(names, advances, family)
    twin_of = {}
    for i, j in twins:
        twin_of.setdefault(i, set()).add(j)
        twin_of.setdefault(j, set()).add(i)
    first_other = {}
    for i in range(len(names)):
        others = [k for k in indices[i] if family[k] != family[i]]
        first_other[i] = others[0] if others else None
    hits = sum(first_other[i] in twin_of[i] for i in twin_of)
    twin_d = np.array([distances[i][list(indices[i]).index(j)] if j in indices[i] else np.inf
                       for i, j in twins])
    lines.append(f"- Twins: {len(twin_of)} faces have a twin of another family ({len(twins)} pairs: every "
                 f"advance within {TWIN_ADVANCE} em and the module's specimens drawn alike). The teacher's "
                 f"first face of another family is a twin for {hits} of them "
                 f"({100 * hits / max(1, len(twin_of)):.1f} %); "
                 f"twins are {np.median(twin_d):.2f} apart (median; 90 % under {np.quantile(twin_d, 0.9):.2f}).")
    misses = [(names[i], names[first_other[i]], sorted(names[j] for j in twin_of[i])) for i in twin_of
              if first_other[i] not in twin_of[i]]
    if misses:
        lines.append("  Missed: " + "; ".join(f"{a} → {b} (twin {', '.join(t)})" for a, b, t in misses[:12])
                     + (" …" if len(misses) > 12 else "") + ".")

    # Bolds: nearer other families' bolds than their own regular?
    weight = np.array([int(faces[n]["weight"]) for n in names])
    italic = np.array([faces[n]["italic"] == "1" for n in names])
    regular_of = {}
    for i, n in enumerate(names):
        if weight[i] == 400 and not italic[i]:
            regular_of.setdefault(family[i], i)
    bolds = [i for i in range(len(names)) if weight[i] == 700 and not italic[i] and family[i] in regular_of]
    nearer = own_first = 0
    for i in bolds:
        row = list(indices[i])
        own = regular_of[family[i]]
        own_rank = row.index(own) if own in row else len(row)
        other_bold = next((r for r, k in enumerate(row) if family[k] != family[i] and weight[k] >= 600), len(row))
        nearer += other_bold < own_rank
        own_first += own_rank == 0
    lines.append(f"- Bolds: of {len(bolds)} upright bold (700) faces whose family has an upright regular (400), "
                 f"{nearer} ({100 * nearer / max(1, len(bolds)):.1f} %) have another family's face of weight 600 "
                 f"or more nearer than their own regular; the regular is the nearest face for {own_first} "
                 f"({100 * own_first / max(1, len(bolds)):.1f} %).")

    # Families, for scale: how often the nearest face is a sibling.
    sibling = sum(family[indices[i][0]] == family[i] for i in range(len(names)))
    lines.append(f"- The nearest face is of the same family for {sibling} of {len(names)} faces "
                 f"({100 * sibling / len(names):.1f} %).")

    # How far the teacher can be trusted: the first face of another family shares the primary
    # style class (labels.tsv), by how far away it is.
    primary = {}
    with open(corpus_labels.LABELS, encoding="utf-8") as f:
        next(f)
        for line in f:
            fields = line.rstrip("\n").split("\t")
            primary[fields[0]] = fields[1].split(",")[0]
    found = [(float(distances[i][list(indices[i]).index(k)]), primary.get(names[i]) == primary.get(names[k]))
             for i, k in first_other.items() if k is not None]
    cells = []
    for lo, hi in DISTANCE_BANDS:
        band = [same for d, same in found if lo <= d < hi]
        if band:
            cells.append(f"{lo:g}-{hi:g}: {len(band)} faces, {100 * np.mean(band):.1f} %")
    lines.append(f"- The first face of another family has the query's primary style class for "
                 f"{100 * np.mean([same for _, same in found]):.1f} % of {len(found)} faces; by its distance, "
                 + "; ".join(cells) + ".")
    return lines


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", default=DEFAULT_WORK, help="training work folder (default %(default)s)")
    parser.add_argument("--keep", type=int, default=KEEP, help="nearest faces kept per face")
    parser.add_argument("--jobs", type=int, default=2, help="drawing processes")
    parser.add_argument("--host-library", default=HOST_LIBRARY, help="the reference host library that draws")
    parser.add_argument("--sheet", metavar="PNG", help="draw a contact sheet of query faces and their nearest")
    parser.add_argument("queries", nargs="*", help="faces for --sheet (default: well-known faces)")
    parser.add_argument("--validate", action="store_true",
                        help="print the teacher's figures (twins, bolds, families) as Markdown")
    parser.add_argument("--draw-part", nargs=3, metavar=("K/N", "NAMES", "OUT"), help=argparse.SUPPRESS)
    parser.add_argument("--draw-samples", nargs=2, metavar=("NAMES", "OUT"), help=argparse.SUPPRESS)
    args = parser.parse_args(argv)
    if args.draw_samples:
        with open(args.draw_samples[0], encoding="utf-8") as f:
            np.save(args.draw_samples[1], draw_samples([line.rstrip("\n") for line in f if line.strip()],
                                                       args.host_library))
        return 0
    if args.draw_part:
        part, listing, out = args.draw_part
        k, n = (int(v) for v in part.split("/"))
        with open(listing, encoding="utf-8") as f:
            names = [line.rstrip("\n") for line in f if line.strip()][k::n]
        drawn, cells, advances, failed = draw_faces(names, args.host_library)
        save_npz(out, names=np.array(drawn), cells=cells, advances=advances, failed=np.array(failed, dtype=str))
        return 0
    result = teacher(args.work, args.keep, args.jobs, args.host_library)
    if args.sheet:
        rows = sheet_rows(result, args.queries or SHEET_QUERIES)
        shown = list(dict.fromkeys(n for q, found in rows for n in [q] + [m for m, _ in found]))
        contact_sheet(rows, dict(zip(shown, corpus_samples(shown, args.host_library))), args.sheet)
        print(f"letter likeness: contact sheet of {len(rows)} faces in {args.sheet}")
        for q, found in rows:
            print(f"| {q} | " + ", ".join(f"{n} ({d:.1f})" for n, d in found) + " |")
    if args.validate:
        drawing = drawing_digest(corpus_labels.MANIFEST, args.host_library)
        print("\n".join(validate(result, os.path.join(args.work, "teacher", f"letters-{drawing}.npz"))))
    return 0


if __name__ == "__main__":
    sys.exit(main())
