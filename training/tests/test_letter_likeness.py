"""The letter-likeness teacher: faces drawn on the spot by the reference host (DejaVu, Liberation,
URW and TeX Gyre fonts from scripts/setup.sh, and DejaVu Sans respaced and renamed with
fontTools), the nearest-face search against a direct one, and the reuse of its files."""
import contextlib
import io
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import numpy as np

# Discovered without -t (from training/tests), the package's parent is not on the path.
sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from fontrix_training import letter_likeness as ll  # noqa: E402

TRAINING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")

# Faces every machine set up by scripts/setup.sh has, by PostScript name.
INSTALLED = ("DejaVuSans", "DejaVuSans-Bold", "LiberationSans", "NimbusSans-Regular", "NimbusSans-Bold",
             "TeXGyreHeros-Regular", "TeXGyreHeros-Bold")


def font_file(name):
    """The installed file of the face with PostScript name `name` (an OpenType or TrueType one
    when fontconfig lists several), or None."""
    try:
        listed = subprocess.run(["fc-list", f":postscriptname={name}", "file"], capture_output=True, text=True,
                                check=True).stdout.split()
    except (OSError, subprocess.CalledProcessError):
        return None
    files = sorted((f.rstrip(":") for f in listed), key=lambda f: not f.endswith((".otf", ".ttf")))
    return files[0] if files else None


def renamed_copy(source, out, name, shift=0, wider=0):
    """`source` (a TrueType face) saved to `out` under the PostScript name `name` and a family of
    its own, each outline moved `shift` font units right and each advance made `wider` units
    wider: the same letters with other spacing and at another offset."""
    from fontTools.ttLib import TTFont
    font = TTFont(source)
    glyf, hmtx = font["glyf"], font["hmtx"]
    for glyph_name in font.getGlyphOrder():
        glyph = glyf[glyph_name]
        advance, lsb = hmtx[glyph_name]
        if shift and glyph.numberOfContours > 0:  # composites follow the glyphs they are made of
            glyph.coordinates.translate((shift, 0))
            glyph.recalcBounds(glyf)
        hmtx[glyph_name] = (max(0, advance + wider) if advance else 0, lsb + (shift if glyph.numberOfContours else 0))
    for table in ("hdmx", "LTSH", "VDMX"):  # device metrics that no longer hold
        if table in font:
            del font[table]
    family = name.replace("-", " ")
    for record in font["name"].names:
        if record.nameID in (1, 4, 16):
            record.string = family
        elif record.nameID == 6:
            record.string = name
        elif record.nameID in (3,):
            record.string = name + " test copy"
    font.save(out)


class DrawnFaces(unittest.TestCase):
    """The installed faces and three made from them, drawn once through the host in a process
    whose only fonts they are."""

    @classmethod
    def setUpClass(cls):
        if not os.path.exists(ll.HOST_LIBRARY):
            raise unittest.SkipTest(f"{ll.HOST_LIBRARY} is not built (scripts/build.sh)")
        files = {name: font_file(name) for name in INSTALLED}
        missing = [n for n, f in files.items() if not f]
        if missing:
            raise unittest.SkipTest(f"fonts not installed: {', '.join(missing)} (scripts/setup.sh installs them)")
        cls.tmp = tempfile.TemporaryDirectory()
        fonts = os.path.join(cls.tmp.name, "fonts")
        os.makedirs(fonts)
        for name, path in files.items():
            shutil.copy(path, os.path.join(fonts, name + os.path.splitext(path)[1]))
        dejavu, liberation = files["DejaVuSans"], files["LiberationSans"]
        # DejaVu's em is 2048 units: 37 units moves the outlines a fraction of the cells' pixel.
        renamed_copy(dejavu, os.path.join(fonts, "spaced.ttf"), "DejaVuTestSpaced-Book", shift=37, wider=90)
        renamed_copy(dejavu, os.path.join(fonts, "tight.ttf"), "DejaVuTestTight-Book", shift=-11, wider=-40)
        renamed_copy(liberation, os.path.join(fonts, "clone.ttf"), "LiberationTestClone-Regular")
        cls.names = list(INSTALLED) + ["DejaVuTestSpaced-Book", "DejaVuTestTight-Book", "LiberationTestClone-Regular"]
        conf = os.path.join(cls.tmp.name, "fonts.conf")
        with open(conf, "w", encoding="utf-8") as f:
            f.write(f'<?xml version="1.0"?>\n<fontconfig><dir>{fonts}</dir>'
                    f'<cachedir>{cls.tmp.name}/fc-cache</cachedir></fontconfig>\n')
        listing, out = os.path.join(cls.tmp.name, "names.txt"), os.path.join(cls.tmp.name, "letters.npz")
        with open(listing, "w", encoding="utf-8") as f:
            f.write("\n".join(cls.names) + "\n")
        env = dict(os.environ, FONTCONFIG_FILE=conf, FONTRIX_CACHE_DIR=os.path.join(cls.tmp.name, "cache"))
        subprocess.run([sys.executable, *ll.ENTRY_POINT, "--draw-part", "0/1", listing, out],
                       env=ll.drawing_environment(env), check=True)
        with np.load(out) as drawn:
            cls.drawn, cls.failed = [str(n) for n in drawn["names"]], list(drawn["failed"])
            cls.cells, cls.advances = drawn["cells"], drawn["advances"]
        cls.distances = ll.pair_distances(ll.letter_vectors(cls.cells, cls.advances))

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def d(self, a, b):
        return self.distances[self.drawn.index(a), self.drawn.index(b)]

    def nearest_of(self, name):
        row = self.distances[self.drawn.index(name)].copy()
        row[self.drawn.index(name)] = np.inf
        return self.drawn[int(np.argmin(row))]

    def test_every_face_is_drawn(self):
        self.assertEqual(self.failed, [])
        self.assertEqual(self.drawn, self.names)

    def test_glyphs_stand_on_one_baseline_with_their_ink_centred(self):
        baseline = ll.ABOVE * ll.CELL / ll.GLYPH_EM  # the baseline's row, from the cell's top
        for name, cells in zip(self.drawn, self.cells):
            for character in "xHo":
                cell = cells[ll.CHARACTERS.index(character)].astype(float)
                rows = np.flatnonzero(cell.max(1) > 128)
                # o overshoots the baseline by a little; x and H sit on it.
                self.assertLess(abs(rows[-1] + 1 - baseline), 1.5, f"{name} {character}")
                centre = (cell.sum(0) * np.arange(ll.CELL)).sum() / cell.sum()
                self.assertLess(abs(centre - (ll.CELL - 1) / 2), 1, f"{name} {character}")

    def test_a_face_respaced_or_moved_is_nearest_to_itself(self):
        for copy in ("DejaVuTestSpaced-Book", "DejaVuTestTight-Book"):
            self.assertEqual(self.nearest_of(copy), "DejaVuSans")
            # Closer than another foundry's cut of one design, which differs in its letters.
            self.assertLess(self.d(copy, "DejaVuSans"), self.d("NimbusSans-Regular", "TeXGyreHeros-Regular"))
        self.assertIn(self.nearest_of("DejaVuSans"), ("DejaVuTestSpaced-Book", "DejaVuTestTight-Book"))

    def test_a_bold_is_farther_than_another_foundrys_cut_of_the_design(self):
        cut = self.d("NimbusSans-Regular", "TeXGyreHeros-Regular")
        self.assertGreater(self.d("DejaVuSans", "DejaVuSans-Bold"), 3 * cut)
        self.assertGreater(self.d("NimbusSans-Regular", "NimbusSans-Bold"), 3 * cut)
        self.assertEqual(self.nearest_of("NimbusSans-Regular"), "TeXGyreHeros-Regular")
        self.assertEqual(self.nearest_of("NimbusSans-Bold"), "TeXGyreHeros-Bold")
        # Liberation Sans is Arial's metrics, not Helvetica's letters: near the two, not one of them.
        self.assertGreater(self.d("LiberationSans", "NimbusSans-Regular"), 2 * cut)

    def test_the_same_letters_under_another_name_are_nothing_apart(self):
        self.assertEqual(self.nearest_of("LiberationTestClone-Regular"), "LiberationSans")
        self.assertLess(self.d("LiberationSans", "LiberationTestClone-Regular"), 0.05)

    def test_distances_are_symmetric_non_negative_and_agree_with_the_search(self):
        d = self.distances
        self.assertTrue(np.all(np.isfinite(d)) and np.all(d >= 0))
        np.testing.assert_allclose(d, d.T, atol=1e-3)
        vectors = ll.letter_vectors(self.cells, self.advances)
        vectors -= vectors.mean(0)
        indices, found = ll.nearest(vectors, keep=4, block=3)
        for i, (row, dist) in enumerate(zip(indices, found)):
            self.assertNotIn(i, row)
            np.testing.assert_allclose(dist, d[i, row], rtol=1e-3, atol=1e-2)
            self.assertTrue(np.all(np.diff(dist) >= 0))


class NearestSearch(unittest.TestCase):
    def test_matches_a_direct_search_across_blocks(self):
        rng = np.random.default_rng(5)
        vectors = rng.normal(size=(23, 40)).astype(np.float32)
        vectors[7] = vectors[2]  # a twin: zero apart, never negative
        vectors[15] = vectors[2]
        direct = np.sqrt(((vectors[:, None].astype(np.float64) - vectors[None]) ** 2).sum(-1))
        np.fill_diagonal(direct, np.inf)
        for keep, block in ((5, 4), (22, 23), (40, 6)):
            indices, distances = ll.nearest(vectors, keep=keep, block=block)
            self.assertEqual(indices.shape, (23, min(keep, 22)))
            np.testing.assert_array_equal(indices, np.argsort(direct, 1, kind="stable")[:, :min(keep, 22)])
            np.testing.assert_allclose(distances, np.take_along_axis(direct, indices, 1), atol=2e-3)
        indices, distances = ll.nearest(vectors, keep=2, block=4)
        self.assertEqual(list(indices[2]), [7, 15])  # ties: the lower index first
        self.assertTrue(np.all(distances[2] >= 0))


class Reuse(unittest.TestCase):
    """teacher() computes from drawn letters kept under the drawing's digest and keeps its answer
    under the answer's digest."""

    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.work = self.tmp.name
        self.manifest = os.path.join(self.work, "manifest.tsv")
        self.library = os.path.join(self.work, "libhost.so")
        self.names = [f"Face{i}" for i in range(6)]
        with open(self.manifest, "w", encoding="utf-8") as f:
            f.write("unique_name\tfamily\n" + "".join(f"{n}\tFamily{n}\n" for n in self.names))
        with open(self.library, "wb") as f:
            f.write(b"a host build")
        rng = np.random.default_rng(2)
        os.makedirs(os.path.join(self.work, "teacher"))
        cells = rng.integers(0, 256, (6, len(ll.CHARACTERS), ll.CELL, ll.CELL), dtype=np.uint8)
        advances = rng.uniform(0.2, 1, (6, len(ll.CHARACTERS))).astype(np.float32)
        cells[4], advances[4] = cells[1], advances[1]
        ll.save_npz(self.letters(), names=np.array(self.names), cells=cells, advances=advances,
                    failed=np.array([], dtype=str))

    def tearDown(self):
        self.tmp.cleanup()

    def letters(self):
        return os.path.join(self.work, "teacher", f"letters-{ll.drawing_digest(self.manifest, self.library)}.npz")

    def run_teacher(self):
        said = io.StringIO()
        with contextlib.redirect_stdout(said):
            result = ll.teacher(self.work, keep=3, library=self.library, manifest_path=self.manifest)
        return result, said.getvalue()

    def test_computed_once_then_read(self):
        first, said = self.run_teacher()
        self.assertIn("read from", said)
        self.assertEqual(list(first["indices"][1][:1]), [4])
        self.assertAlmostEqual(float(first["distances"][1][0]), 0, places=2)
        again, said = self.run_teacher()
        self.assertIn("up to date", said)
        np.testing.assert_array_equal(again["indices"], first["indices"])

    def test_another_manifest_or_host_build_is_another_drawing(self):
        before = ll.drawing_digest(self.manifest, self.library)
        with open(self.library, "ab") as f:
            f.write(b" rebuilt")
        self.assertNotEqual(ll.drawing_digest(self.manifest, self.library), before)
        with open(self.library, "wb") as f:
            f.write(b"a host build")
        with open(self.manifest, "a", encoding="utf-8") as f:
            f.write("Face6\tFamilyFace6\n")
        self.assertNotEqual(ll.drawing_digest(self.manifest, self.library), before)


if __name__ == "__main__":
    unittest.main()
