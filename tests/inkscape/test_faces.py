#!/usr/bin/python3
"""The Inkscape extension's helpers on their own: the CSS font properties Inkscape writes turned
into the face fontrix resolves (and fontrix's faces back into CSS), checked against the real
fontrix's resolution of DejaVu's faces; the lines and labels boards show; the rules that pick a
replacement; and the part of an <image> the page shows.

Usage: test_faces.py PATH/TO/fontrix   (run from the source tree)
Exits 77 (a skip to CTest), saying why, where Inkscape's inkex is not installed.
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

EXTENSIONS = "/usr/share/inkscape/extensions"
FONTRIX = None
SKIP = 77

SVG = ('<svg xmlns="http://www.w3.org/2000/svg" xmlns:xlink="http://www.w3.org/1999/xlink" '
       'viewBox="0 0 100 100">%s</svg>')


def document(body):
    import inkex
    return inkex.load_svg(bytes(SVG % body, "utf-8")).getroot()


class CssToFaceTest(unittest.TestCase):
    def face(self, style, child_style=None, parent_style=""):
        """The face of a text (or of its tspan, when `child_style` is given) in a group."""
        inner = '<tspan id="s" style="%s">x</tspan>' % child_style if child_style is not None else "x"
        svg = document('<g style="%s"><text id="t" style="%s">%s</text></g>' % (parent_style, style, inner))
        return fx.element_face(svg.getElementById("s" if child_style is not None else "t"))

    def assertFace(self, face, family, weight, slant="normal", stretch=100):
        self.assertEqual((face.family, round(face.weight), face.slant, face.stretch),
                         (family, weight, slant, stretch))

    def test_weights(self):
        for value, weight in (("bold", 700), ("normal", 400), ("600", 600), ("350", 350), ("900", 900),
                              ("1200", 1000), ("heavy", 400)):
            self.assertFace(self.face("font-family:'DejaVu Sans';font-weight:%s" % value), "DejaVu Sans", weight)
        # Relative weights go from the parent's, as CSS says.
        self.assertFace(self.face("font-family:A;font-weight:300", "font-weight:bolder"), "A", 400)
        self.assertFace(self.face("font-family:A", "font-weight:bolder"), "A", 700)
        self.assertFace(self.face("font-family:A;font-weight:bold", "font-weight:bolder"), "A", 900)
        self.assertFace(self.face("font-family:A;font-weight:bold", "font-weight:lighter"), "A", 400)
        self.assertFace(self.face("", parent_style="font-family:B;font-weight:bold"), "B", 700)

    def test_slants_stretches_and_family_lists(self):
        self.assertFace(self.face("font-family:A;font-style:oblique"), "A", 400, "oblique")
        self.assertFace(self.face("font-family:A;font-style:oblique 12deg"), "A", 400, "oblique")
        self.assertFace(self.face("font-family:A;font-style:italic;font-stretch:condensed"), "A", 400, "italic", 75)
        self.assertFace(self.face("font-family:A;font-stretch:87.5%"), "A", 400, "normal", 87.5)
        face = self.face("font-family:'Foo Bar', &quot;Baz&quot;, serif")
        self.assertEqual((face.family, face.families, face.generic), ("Foo Bar", ["Foo Bar", "Baz", "serif"], "serif"))
        self.assertEqual(self.face("").family, "sans-serif")  # CSS's initial family is Inkscape's default

    def test_pango_font_description(self):
        # Inkscape draws with the Pango description where the element declares one.
        self.assertFace(self.face("font-family:'DejaVu Sans';-inkscape-font-specification:'DejaVu Sans, Bold Italic'"),
                        "DejaVu Sans", 700, "italic")
        self.assertFace(self.face("font-family:'Open Sans';font-weight:bold;"
                                  "-inkscape-font-specification:'Open Sans Semi-Bold Condensed'"),
                        "Open Sans", 600, "normal", 75)
        self.assertFace(self.face("-inkscape-font-specification:'Sans Oblique'"), "Sans", 400, "oblique")
        self.assertFace(self.face("font-family:'Noto Sans';font-weight:bold;-inkscape-font-specification:'Noto Sans'"),
                        "Noto Sans", 400)
        # A family whose last word reads as a style keeps it before Pango's comma.
        self.assertFace(self.face("-inkscape-font-specification:'Foo Light, Light'"), "Foo Light", 300)
        # A description the parent declares is not the child's: the child's own weight counts.
        self.assertFace(self.face("font-family:A;-inkscape-font-specification:'A Bold'", "font-weight:300"), "A", 300)

    def test_patterns_and_descriptions(self):
        self.assertEqual(fx.Face("DejaVu Sans", 700, "italic").pattern(), "DejaVu Sans:weight=200:slant=100")
        self.assertEqual(fx.Face("A", 600, "oblique", 75).pattern(), "A:weight=180:slant=110:width=75")
        self.assertEqual(fx.Face("A", 450).pattern(), "A:weight=90:slant=0")  # between regular 80 and medium 100
        self.assertEqual(fx.Face("A", 350).pattern(), "A:weight=55:slant=0")
        self.assertEqual(fx.Face("Foo-Bar: X, Y").pattern(), r"Foo\-Bar\: X\, Y:weight=80:slant=0")
        self.assertEqual(fx.Face("DejaVu Sans", 700, "oblique", 87.5).description(),
                         "DejaVu Sans Bold Semi-Condensed Oblique")
        self.assertEqual(fx.Face("DejaVu Sans").description(), "DejaVu Sans")

    def test_fontrix_faces_back_to_css(self):
        css = fx.css_of_result({"family": "DejaVu Sans", "weight": 200, "slant": 110, "width": 87})
        self.assertEqual(css, {"font-family": "'DejaVu Sans'", "font-weight": "bold", "font-style": "oblique",
                               "font-stretch": "semi-condensed",
                               "-inkscape-font-specification": "'DejaVu Sans, Bold Semi-Condensed Oblique'"})
        css = fx.css_of_result({"family": "X", "weight": 75, "slant": 0, "width": 100})  # Book: 380, CSS's 400
        self.assertEqual((css["font-weight"], css["font-style"], css["-inkscape-font-specification"]),
                         ("normal", "normal", "'X'"))
        self.assertEqual(fx.css_of_result({"family": "X", "weight": 180, "slant": 100, "width": 100})["font-weight"],
                         "600")
        for fc in (0, 40, 50, 55, 75, 80, 100, 180, 200, 205, 210, 215):
            self.assertAlmostEqual(fx.fc_weight(fx.css_weight(fc)), fc)

    @unittest.skipUnless(FONTRIX or len(sys.argv) > 1, "needs the fontrix tool")
    def test_fontrix_resolves_the_patterns_to_the_faces_css_means(self):
        with tempfile.TemporaryDirectory() as tmp:
            env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}
            env["FONTRIX_CACHE_DIR"] = tmp

            def resolved(face):
                done = subprocess.run([FONTRIX, "specimen", face.pattern(), "x", "-o", os.path.join(tmp, "x.png"),
                                       "--json"], capture_output=True, text=True, env=env, timeout=120)
                self.assertEqual(done.returncode, 0, done.stderr)
                return json.loads(done.stdout)["font"]

            listed = subprocess.run([FONTRIX, "fonts", "DejaVu Sans:", "--json"], capture_output=True, text=True,
                                    env=env, timeout=120)
            faces = json.loads(listed.stdout)["fonts"]

            def listed_face(weight, slant, width=100):
                return next(f["name"] for f in faces if f["family"] == "DejaVu Sans" and f["weight"] == weight
                            and (f["slant"] > 0) == slant and f["width"] == width)

            css = {"bold italic": ("font-weight:bold;font-style:italic", 200, True),
                   "oblique": ("font-style:oblique", 80, True),
                   "600": ("font-weight:600", 200, False),  # no semi-bold: the bold is nearer
                   "Pango description": ("-inkscape-font-specification:'DejaVu Sans, Bold'", 200, False),
                   "normal": ("font-weight:normal", 80, False)}
            for what, (style, weight, slant) in css.items():
                face = self.face("font-family:'DejaVu Sans';" + style)
                self.assertEqual(resolved(face), listed_face(weight, slant), what)


class LabelsTest(unittest.TestCase):
    def test_first_lines_of_texts_and_flowed_texts(self):
        line = 'sodipodi:role="line" xmlns:sodipodi="http://sodipodi.sourceforge.net/DTD/sodipodi-0.dtd"'
        svg = document(
            # Lines Inkscape writes, the first mixing fonts in nested tspans.
            '<text id="t"><tspan %s> </tspan><tspan %s>  Two <tspan id="n" style="font-weight:bold">  words</tspan> '
            '</tspan><tspan %s>second</tspan></text>'
            # Spans on one line; a span at a y of its own; an SVG 2 text whose newlines break lines.
            '<text id="u" y="5"><tspan>One</tspan> <tspan y="5">line</tspan><tspan y="9">below</tspan></text>'
            '<text id="p" style="white-space:pre">\nFirst\nSecond</text>'
            '<text id="w"><title>Tip</title>Shown</text><text id="e"/>'
            '<flowRoot xmlns="http://www.w3.org/2000/svg" id="f"><flowRegion><rect width="9" height="9"/>'
            '</flowRegion><flowPara/><flowPara>Flowed <flowSpan>text</flowSpan></flowPara></flowRoot>'
            % (line, line, line))
        self.assertEqual([fx.first_line(svg.getElementById(i)) for i in "tupwef"],
                         ["Two words", "One line", "First", "Shown", "Handgloves", "Flowed text"])
        # The face asked about is that of the first characters drawn.
        self.assertIs(fx.first_face_element(svg.getElementById("t")), svg.getElementById("t")[1])
        self.assertIs(fx.first_face_element(svg.getElementById("e")), svg.getElementById("e"))

    def test_candidates_say_how_sure_recognition_is_where_fontrix_says(self):
        font = {"family": "DejaVu Serif", "style": "Bold", "score": 0.8591}
        self.assertEqual(fx_identify.label(0, font, {}), "1. DejaVu Serif Bold  0.859")
        self.assertEqual(fx_identify.label(1, dict(font, confidence=0.42, sure=False), {}),
                         "2. DejaVu Serif Bold  0.859  confidence 42 %  (not sure)")
        # Said of the whole answer: it is the first candidate's.
        answer = {"confidence": 0.9, "sure": True}
        self.assertEqual(fx_identify.label(0, font, answer), "1. DejaVu Serif Bold  0.859  confidence 90 %")
        self.assertEqual(fx_identify.label(1, font, answer), "2. DejaVu Serif Bold  0.859")


class ReplacementRulesTest(unittest.TestCase):
    def test_what_a_family_name_says(self):
        for family, generic in (("Source Code Pro", "monospace"), ("Courier Prime", "monospace"),
                                ("PT Sans Serif", "sans-serif"), ("Roboto Slab", "serif"), ("Brush Script", "cursive"),
                                ("Alegreya SC", "sans-serif"), ("Big Shoulders Display", "fantasy")):
            self.assertEqual(fx_replace.generic_of_name(family), generic, family)

    def test_family_lists_for_fontrix_substitute_quote_all_but_generic_names(self):
        # Quoted, a generic name would be a family of that name; quotes and backslashes escaped
        # as CSS escapes them (fontrix reads "'It\\'s'" as It's).
        self.assertEqual(fx.family_list(["It's", "Back\\slash", "DejaVu Sans", "Sans-Serif", "monospace"]),
                         "'It\\'s', 'Back\\\\slash', 'DejaVu Sans', Sans-Serif, monospace")


class PlacesTest(unittest.TestCase):
    def test_boards_keep_clear_of_what_is_drawn_only(self):
        svg = document(
            '<style>.off { display: none }</style><defs><rect id="d"/></defs>'
            '<g id="g"><rect id="r"/><rect id="h" style="display:none"/><rect id="c" class="off"/></g>'
            '<g id="v" visibility="hidden"><rect id="vi"/><rect id="vv" style="visibility:visible"/></g>'
            '<text id="t"><tspan id="ts">x</tspan></text><g id="board"><rect id="b"/></g>')
        ids = ["d", "g", "r", "h", "c", "v", "vi", "vv", "t", "ts", "board", "b"]
        boxes = {i: (n, 0.0, n + 1.0, 1.0) for n, i in enumerate(ids)}
        drawn = fx.drawn_boxes(svg, boxes, leave_out={"board"})
        self.assertEqual(sorted(drawn), [boxes[i] for i in ("r", "vv", "t")])

    def test_boards_are_built_from_the_origin(self):
        svg = document("")
        group = fx.new_group(svg, "board", "board-")
        entries = [("label %d" % i, "Sample", {"font-family": "serif"}) for i in range(6)]
        samples, (width, height) = fx.add_board(group, svg, "Title", entries, 10.0, column_height=60.0)
        self.assertEqual(len(samples), 6)
        ys = [float(t.get("y")) for t in samples]
        xs = sorted({float(t.get("x")) for t in samples})
        self.assertTrue(len(xs) > 1 and xs[0] == 0.0, xs)  # columns, the first at the origin
        self.assertTrue(all(0 < y <= 60.0 for y in ys) and max(ys) < height, (ys, height))
        self.assertGreater(width, xs[-1])
        fx.move(group, 5.0, 7.0)
        self.assertEqual([float(t.get("y")) for t in samples], [y + 7.0 for y in ys])


class ShownPictureTest(unittest.TestCase):
    """The pixel box of a 400 x 100 picture that an <image> shows."""

    def shown(self, image, defs="", around=("", "")):
        svg = document('%s%s<image id="i" %s/>%s' % (defs, around[0], image, around[1]))
        return fx_pictures.visible_pixels(svg, svg.getElementById("i"), 400, 100)

    def test_frames_and_aspect_ratios(self):
        self.assertEqual(self.shown('x="0" y="0" width="40" height="10"'), (0, 0, 400, 100))
        self.assertEqual(self.shown('width="80" height="10" preserveAspectRatio="none"'), (0, 0, 400, 100))
        # meet: the whole picture, centred in a taller frame; slice: the frame cuts it.
        self.assertEqual(self.shown('width="40" height="40"'), (0, 0, 400, 100))
        self.assertEqual(self.shown('width="10" height="10" preserveAspectRatio="xMidYMid slice"'), (150, 0, 250, 100))
        self.assertEqual(self.shown('width="10" height="10" preserveAspectRatio="xMinYMin slice"'), (0, 0, 100, 100))
        self.assertEqual(self.shown('width="10" height="10" preserveAspectRatio="xMaxYMax slice"'), (300, 0, 400, 100))

    def test_clip_paths(self):
        clip = '<clipPath id="c"%s><rect x="%s" y="%s" width="%s" height="%s"%s/></clipPath>'
        image = 'x="10" y="10" width="40" height="10" clip-path="url(#c)"'
        self.assertEqual(self.shown(image, clip % ("", 20, 0, 10, 15, "")), (100, 0, 200, 50))
        self.assertEqual(self.shown(image, clip % ("", 0, 0, 15, 100, ' transform="translate(10,12)"')),
                         (0, 20, 150, 100))
        self.assertEqual(self.shown(image, clip % (' clipPathUnits="objectBoundingBox"', 0.5, 0, 0.5, 1, "")),
                         (200, 0, 400, 100))
        self.assertIsNone(self.shown(image, clip % ("", 60, 0, 10, 10, "")))  # clipped away
        # A clip on a group, in the group's user space, with the image moved inside it.
        self.assertEqual(self.shown('x="0" y="0" width="40" height="10" transform="translate(10,0)"',
                                    clip % ("", 30, 0, 100, 100, ""), ('<g clip-path="url(#c)">', "</g>")),
                         (200, 0, 400, 100))
        # The group's own transform moves its clip with it: the clip is in the group's user space.
        self.assertEqual(self.shown('x="0" y="0" width="40" height="10"', clip % ("", 0, 0, 20, 100, ""),
                                    ('<g clip-path="url(#c)" transform="scale(2)">', "</g>")), (0, 0, 200, 100))

    def test_picture_headers(self):
        png = b"\x89PNG\r\n\x1a\n\x00\x00\x00\rIHDR\x00\x00\x01\x90\x00\x00\x00\x64" + b"\x00" * 8
        self.assertEqual(fx_pictures.picture_size(png), (400, 100))
        jpeg = b"\xff\xd8\xff\xe0\x00\x04ab\xff\xc0\x00\x11\x08\x00\x64\x01\x90" + b"\x00" * 12
        self.assertEqual(fx_pictures.picture_size(jpeg), (400, 100))
        self.assertIsNone(fx_pictures.picture_kind(b"GIF89a"))


if __name__ == "__main__":
    if not os.path.isfile(os.path.join(EXTENSIONS, "inkex", "__init__.py")):
        print("skipped: Inkscape's inkex is not installed in %s (scripts/setup.sh --tests installs inkscape)"
              % EXTENSIONS)
        sys.exit(SKIP)
    sys.path[:0] = [EXTENSIONS, os.path.join(os.getcwd(), "inkscape")]
    import fontrix_ink as fx  # noqa: E402
    import fontrix_pictures as fx_pictures  # noqa: E402
    import fontrix_identify as fx_identify  # noqa: E402
    import fontrix_replace as fx_replace  # noqa: E402
    if len(sys.argv) > 1 and not sys.argv[1].startswith("-"):
        FONTRIX = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)  # the log says why a test was skipped
