"""The corpus scripts' rules: which files and faces are kept, how faces are labelled, how
families are split. Fonts are made on the spot with fontTools; nothing is fetched."""
import os
import sys
import tempfile
import unittest

from fontTools.fontBuilder import FontBuilder
from fontTools.pens.ttGlyphPen import TTGlyphPen

# Discovered without -t (from training/tests), the package's parent is not on the path.
sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from fontrix_training.corpus import build_manifest  # noqa: E402
from fontrix_training.corpus import fetch  # noqa: E402
from fontrix_training.corpus import labels  # noqa: E402
from fontrix_training.corpus import splits  # noqa: E402

ALNUM = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"


def make_font(path, boxes=None, leave_out="", width_of=lambda c: 500, fixed_pitch=0):
    """A TrueType font with a box glyph for every letter and figure (minus `leave_out`);
    `boxes` overrides a glyph's (y_min, y_max)."""
    chars = [c for c in ALNUM if c not in leave_out]
    names = [".notdef"] + [f"g{ord(c)}" for c in chars]
    builder = FontBuilder(1000, isTTF=True)
    builder.setupGlyphOrder(names)
    builder.setupCharacterMap({ord(c): f"g{ord(c)}" for c in chars})
    glyphs, metrics = {}, {".notdef": (500, 0)}
    for c in [None] + chars:
        y_min, y_max = (boxes or {}).get(c, default_box(c))
        pen = TTGlyphPen(None)
        pen.moveTo((50, y_min))
        pen.lineTo((50, y_max))
        pen.lineTo((400, y_max))
        pen.lineTo((400, y_min))
        pen.closePath()
        name = ".notdef" if c is None else f"g{ord(c)}"
        glyphs[name] = pen.glyph()
        if c is not None:
            metrics[name] = (width_of(c), 50)
    builder.setupGlyf(glyphs)
    builder.setupHorizontalMetrics(metrics)
    builder.setupHorizontalHeader(ascent=800, descent=-200)
    builder.setupNameTable({"familyName": "Test", "styleName": "Regular"})
    builder.setupOS2()
    builder.setupPost(isFixedPitch=fixed_pitch)
    builder.save(path)


def default_box(c):
    """Latin proportions: capitals and ascenders 700, x-height 500, descenders to -200."""
    if c is None or c.isupper() or c.isdigit() or c in "bdfhklt":
        return (0, 700)
    if c in "gjpqy":
        return (-200, 500)
    return (0, 500)


class FetchRules(unittest.TestCase):
    def test_only_the_basic_latin_woff2_of_a_web_font_package_is_kept(self):
        keep = fetch.is_latin_web_font
        self.assertTrue(keep("package/files/roboto-latin-400-normal.woff2"))
        self.assertTrue(keep("package/files/noto-sans-latin-900-italic.woff2"))
        self.assertFalse(keep("package/files/roboto-latin-ext-400-normal.woff2"))
        self.assertFalse(keep("package/files/roboto-cyrillic-400-normal.woff2"))
        self.assertFalse(keep("package/files/roboto-latin-400-normal.woff"))
        self.assertFalse(keep("package/files/roboto-latin-wght-normal.woff2"))  # variable axes file
        self.assertTrue(fetch.keeps(fetch.CATALOGUE))

    def test_package_list_lines_must_have_three_fields(self):
        with tempfile.NamedTemporaryFile("w", suffix=".tsv", delete=False) as f:
            f.write("# comment\ndebian\tfonts-x\t1.0\nnpm\t@fontsource/a\tlatest\n")
        try:
            self.assertEqual(fetch.read_packages(f.name),
                             [("debian", "fonts-x", "1.0"), ("npm", "@fontsource/a", "latest")])
            with open(f.name, "a") as g:
                g.write("pip\tthing\t1\n")
            with self.assertRaisesRegex(ValueError, ":4:"):
                fetch.read_packages(f.name)
        finally:
            os.unlink(f.name)

    def test_checked_in_list_is_pinned_and_has_no_repeats(self):
        rows = fetch.read_packages()
        self.assertEqual(len(rows), len({(s, p) for s, p, _ in rows}))
        self.assertGreater(sum(1 for s, _, _ in rows if s == "debian"), 100)


class FaceFilter(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.folder.cleanup()

    def check(self, **kwargs):
        path = os.path.join(self.folder.name, "f.ttf")
        make_font(path, **kwargs)
        return build_manifest.check_face(path, 0)

    def test_a_latin_face_is_kept(self):
        self.assertIsNone(self.check())

    def test_missing_letters_are_named(self):
        self.assertEqual(self.check(leave_out="qZ"), "lacks qZ")

    def test_small_capitals_in_the_lower_case_are_refused(self):
        small_caps = {c: (0, 500) for c in ALNUM if c.islower()}
        self.assertEqual(self.check(boxes=small_caps), "lower case holds capitals")
        all_caps = {c: (0, 700) for c in ALNUM if c.islower()}
        self.assertEqual(self.check(boxes=all_caps), "lower case holds capitals")

    def test_a_face_with_only_descenders_is_not_small_capitals(self):
        # Ascenders as high as x (a unicase-like design) but real descenders: kept.
        boxes = {c: (0, 500) for c in "bdfhklt"}
        self.assertIsNone(self.check(boxes=boxes))

    def test_unreadable_file_gives_a_reason_not_an_exception(self):
        path = os.path.join(self.folder.name, "bad.ttf")
        with open(path, "wb") as f:
            f.write(b"\0\1\0\0garbage")
        self.assertTrue(build_manifest.check_face(path, 0).startswith("unreadable"))

    def test_prechecks(self):
        face = {"variable": False, "unique_name": "X-Regular", "file": "x.ttf", "family": "X"}
        self.assertIsNone(build_manifest.precheck(face))
        self.assertEqual(build_manifest.precheck(dict(face, variable=True)), "variable font")
        self.assertIn("Type 1", build_manifest.precheck(dict(face, file="x.pfb")))
        self.assertIsNone(build_manifest.precheck(dict(face, family="Noto Serif Display")))
        self.assertEqual(build_manifest.precheck(dict(face, family="Noto Sans Devanagari")),
                         "Noto face of another script")
        for family in ("Libre Barcode 39", "Playwrite DE Grund Guides", "Redacted Script"):
            self.assertEqual(build_manifest.precheck(dict(face, family=family)), "draws no text")

    def test_first_face_of_a_unique_name_wins(self):
        faces = [{"file": "debian/a.ttf", "index": 0, "unique_name": "A"},
                 {"file": "npm/a.woff2", "index": 0, "unique_name": "A"},
                 {"file": "npm/b.woff2", "index": 0, "unique_name": "B"}]
        kept, rejected = build_manifest.select_faces(faces, [None, None, "lacks q"])
        self.assertEqual([f["file"] for f in kept], ["debian/a.ttf"])
        self.assertEqual([r for _, r in rejected], ["unique name already taken", "lacks q"])

    def test_weights_map_to_the_css_scale(self):
        self.assertEqual([build_manifest.css_weight(w) for w in (0, 50, 80, 100, 180, 200, 210)],
                         [100, 300, 400, 500, 600, 700, 900])


class LabelRules(unittest.TestCase):
    HAND = {"DejaVu Serif": (["fs_serif"], "")}
    CATALOGUE = {"Roboto Slab": "serif", "Lora": "serif", "Great Vibes": "handwriting",
                 "Indie Flower": "handwriting", "Pirata One": "display", "Bungee": "display",
                 "Lobster": "display", "Courier Prime": "monospace", "DejaVu Serif": "sans-serif",
                 "Playwrite US Trad": "handwriting", "Playwrite DE Grund": "handwriting",
                 "Caveat Brush": "handwriting", "Kaushan Script": "handwriting", "Homemade Apple": "handwriting",
                 "Gabarito": "display", "Abril Fatface": "display", "Angkor": "display", "Comic Relief": "display",
                 "Belgrano": "serif"}

    def label(self, family, fixed=False):
        return labels.label_face(family, fixed, self.HAND, self.CATALOGUE)[0]

    def test_categories_and_their_refinements(self):
        self.assertEqual(self.label("Lora"), ["fs_serif"])
        self.assertEqual(self.label("Roboto Slab"), ["fs_slab_serif", "fs_serif"])
        self.assertEqual(self.label("Belgrano"), ["fs_slab_serif", "fs_serif"])
        self.assertEqual(self.label("Pirata One"), ["fs_blackletter"])
        self.assertEqual(self.label("Courier Prime", fixed=True), ["fs_monospace"])  # a typewriter is no slab

    def test_handwriting_splits_into_script_and_handmade(self):
        for family in ("Great Vibes", "Playwrite US Trad", "Kaushan Script", "Homemade Apple"):
            self.assertEqual(self.label(family), ["fs_script"], family)
        # Print hands, the last two named like scripts.
        for family in ("Indie Flower", "Playwrite DE Grund", "Caveat Brush"):
            self.assertEqual(self.label(family), ["fs_handmade"], family)

    def test_display_is_decorative_unless_listed_by_structure(self):
        self.assertEqual(self.label("Bungee"), ["fs_decorative"])
        self.assertEqual(self.label("Lobster"), ["fs_script"])
        self.assertEqual(self.label("Gabarito"), ["fs_sans_serif"])
        self.assertEqual(self.label("Abril Fatface"), ["fs_serif"])
        self.assertEqual(self.label("Angkor"), ["fs_slab_serif", "fs_serif"])
        self.assertEqual(self.label("Comic Relief"), ["fs_handmade"])

    def test_lists_do_not_overlap(self):
        lists = [labels.BLACKLETTER, labels.SLAB_SERIF, labels.DISPLAY_SANS, labels.DISPLAY_SERIF,
                 labels.DISPLAY_HANDMADE, labels.DISPLAY_SCRIPT, labels.HANDWRITING_SCRIPT, labels.HANDWRITING_PRINT]
        for i, a in enumerate(lists):
            for b in lists[i + 1:]:
                self.assertFalse(a & b, sorted(a & b))

    def test_hand_list_overrides_the_catalogue(self):
        self.assertEqual(self.label("DejaVu Serif"), ["fs_serif"])

    def test_fixed_pitch_adds_monospace_first_and_is_reported(self):
        classes, source = labels.label_face("Lora", True, self.HAND, self.CATALOGUE)
        self.assertEqual(classes, ["fs_monospace", "fs_serif"])
        self.assertIn("fixed pitch", source)
        _, source = labels.label_face("Courier Prime", False, self.HAND, self.CATALOGUE)
        self.assertIn("not fixed pitch", source)

    def test_unknown_family_is_unlabelled_and_collection_rule_applies(self):
        self.assertEqual(labels.label_face("Nowhere", False, {}, {}), ([], "unlabelled"))
        self.assertEqual(self.label("Zirconia BRK"), ["fs_decorative"])

    def test_fixed_pitch_is_read_from_the_font(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "f.ttf")
            make_font(path)
            self.assertTrue(labels.face_is_fixed_pitch(folder, "f.ttf"))  # every advance 500
            make_font(path, width_of=lambda c: 300 if c in "il1" else 550)
            self.assertFalse(labels.face_is_fixed_pitch(folder, "f.ttf"))
            make_font(path, width_of=lambda c: 300 if c in "il1" else 550, fixed_pitch=1)
            self.assertTrue(labels.face_is_fixed_pitch(folder, "f.ttf"))

    def test_hand_list_rejects_unknown_classes(self):
        with tempfile.NamedTemporaryFile("w", suffix=".tsv", delete=False) as f:
            f.write("Good\tfs_serif,fs_slab_serif\tnote\nBad\tfs_fancy\tnote\n")
        try:
            with self.assertRaisesRegex(ValueError, ":2:"):
                labels.read_hand_list(f.name)
        finally:
            os.unlink(f.name)
        self.assertIn("DejaVu Sans", labels.read_hand_list())  # the checked-in list reads


class FamilySplits(unittest.TestCase):
    def test_relatives_share_a_key(self):
        key = splits.family_key
        self.assertEqual(key("Roboto Condensed"), key("Roboto"))
        self.assertEqual(key("Open Sans SemiCondensed"), "open sans")
        self.assertEqual(key("Playfair Display SC"), "playfair")
        self.assertEqual(key("Lobster Two"), key("Lobster"))
        self.assertNotEqual(key("Roboto Mono"), key("Roboto"))
        self.assertEqual(key("Display"), "display")  # never emptied

    def test_every_class_reaches_test_and_validation(self):
        primary = {f"{c}-{i}": c for c in labels.CLASSES for i in range(14)}
        result = splits.assign(primary)
        for c in labels.CLASSES:
            got = [result[k] for k in primary if primary[k] == c]
            self.assertEqual((got.count("test"), got.count("validation")), (2, 1), c)
        self.assertEqual(result, splits.assign(dict(reversed(list(primary.items())))))  # order-free

    def test_a_family_votes_its_primary_class(self):
        families = {"A-1": "A", "A-2": "A Condensed", "A-3": "A"}
        face_labels = {"A-1": ["fs_serif"], "A-2": ["fs_sans_serif"], "A-3": ["fs_serif", "fs_slab_serif"]}
        self.assertEqual(splits.primary_classes(face_labels, families), {"a": "fs_serif"})


if __name__ == "__main__":
    unittest.main()


class CheckedInCorpus(unittest.TestCase):
    """The manifest, labels and splits as checked in: complete, consistent, and split by family."""

    @classmethod
    def setUpClass(cls):
        cls.manifest = labels.read_manifest()
        cls.classes, cls.families = splits.read_labels()
        cls.split = splits.split_of_faces()

    def test_every_face_is_labelled_and_split(self):
        names = [f["unique_name"] for f in self.manifest]
        self.assertEqual(len(names), len(set(names)))
        for name in names:
            self.assertRegex(name, r"^\S+$")
        self.assertEqual(set(names), set(self.classes))
        self.assertEqual(set(names), set(self.split))
        for name, classes in self.classes.items():
            self.assertTrue(classes, name)
            self.assertTrue(set(classes) <= set(labels.CLASSES), name)

    def test_size_and_the_fonts_linux_desktops_install(self):
        self.assertGreaterEqual(len(self.manifest), 4000)
        self.assertGreaterEqual(len(set(self.families.values())), 1200)
        names = set(self.classes)
        for common in ("DejaVuSans", "DejaVuSerif-Bold", "LiberationSans", "LiberationMono-Italic", "Arimo",
                       "Cantarell-Regular", "NimbusRoman-Regular", "TeXGyreTermes-Regular", "NotoSans-Regular",
                       "OpenSans-Regular", "C059-Roman"):
            self.assertIn(common, names)

    def test_every_class_is_broad_enough_and_in_every_split(self):
        for c in labels.CLASSES:
            faces = [n for n, cs in self.classes.items() if c in cs]
            families = {self.families[n] for n in faces}
            self.assertGreaterEqual(len(faces), 20, c)
            self.assertGreaterEqual(len(families), 5, c)
            primary = [n for n, cs in self.classes.items() if cs[0] == c]
            self.assertEqual({self.split[n] for n in primary}, {"train", "validation", "test"}, c)

    def test_slab_serifs_are_proportional_serifs(self):
        for name, classes in self.classes.items():
            if "fs_slab_serif" in classes:
                self.assertNotIn("fs_monospace", classes, name)
                self.assertIn("fs_serif", classes, name)

    def test_no_family_is_in_two_splits(self):
        seen = {}
        for name, family in self.families.items():
            key = splits.family_key(family)
            self.assertEqual(seen.setdefault(key, self.split[name]), self.split[name], family)
