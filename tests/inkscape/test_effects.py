#!/usr/bin/python3
"""The Fontrix effects run in Inkscape itself, with its window up on a virtual display, from an
installed tree: `cmake --install` into a temporary prefix, the extension found by Inkscape
through a link in a temporary home's ~/.config/inkscape/extensions (as a user of another prefix
makes it found) or installed straight into that folder. Each effect runs on a document made
for it; the output document must hold what fontrix itself answers, asked by the test. Cases
whose only difference is the message an effect gives run its script as Inkscape does, without
Inkscape.

Usage: test_effects.py BUILD_DIR CMAKE [--pictures DIR]   (run from the source tree)
--pictures writes a PNG of each effect's result into DIR (the README's pictures).

Exits 77 (a skip to CTest), saying why, where Inkscape, xvfb-run or xdotool is missing.
"""
import base64
import io
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.getcwd()
HERE = os.path.dirname(os.path.abspath(__file__))
EXTENSIONS = "/usr/share/inkscape/extensions"  # Debian's; it holds inkex
BUILD = CMAKE = PICTURES = None
SKIP = 77

SVG_HEAD = ('<svg xmlns="http://www.w3.org/2000/svg" xmlns:xlink="http://www.w3.org/1999/xlink" '
            'xmlns:inkscape="http://www.inkscape.org/namespaces/inkscape" '
            'xmlns:sodipodi="http://sodipodi.sourceforge.net/DTD/sodipodi-0.dtd" '
            'width="297mm" height="210mm" viewBox="0 0 297 210">'
            '<g id="layer1" inkscape:groupmode="layer" inkscape:label="Layer 1">')
SVG_TAIL = "</g></svg>"


def missing_programs():
    return [p for p in ("inkscape", "xvfb-run", "xdotool") if not shutil.which(p)]


def run(args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, timeout=300, **kwargs)


class EffectsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory(prefix="fontrix-inkscape-")
        cls.prefix = os.path.join(cls.tmp.name, "prefix")
        cls.home = os.path.join(cls.tmp.name, "home")
        cls.log = os.path.join(cls.tmp.name, "extensions.log")
        cls.env = {k: v for k, v in os.environ.items()
                   if not k.startswith(("FONTRIX_", "XDG_", "INKSCAPE")) and k != "DISPLAY"}
        cls.env.update(HOME=cls.home, FONTRIX_TEST_EXTENSION_LOG=cls.log)
        check(run([CMAKE, "--install", BUILD, "--prefix", cls.prefix], env=cls.env))
        cls.fontrix = os.path.join(cls.prefix, "bin", "fontrix")
        installed = os.path.join(cls.prefix, "share", "inkscape", "extensions", "fontrix")
        user = os.path.join(cls.home, ".config", "inkscape", "extensions")
        os.makedirs(user)
        os.symlink(installed, os.path.join(user, "fontrix"))
        # The tool's first run in this home brings the module's caches up to date.
        check(run([cls.fontrix, "index"], env=cls.env))
        sys.path.insert(0, EXTENSIONS)
        sys.path.insert(0, installed)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def tool(self, *args):
        """fontrix's own answer, as the test asks it."""
        return json.loads(check(run([self.fontrix, *args, "--json"], env=self.env)).stdout)

    def effect(self, name, document, select=None, home=None, folder=None, **options):
        """Runs effect org.fontrix.NAME with OPTIONS in Inkscape on DOCUMENT (SVG text, saved as
        FOLDER/in.svg, a new folder by default) with SELECT (ids, comma-separated) selected; the
        output document and the extension's run (arguments, status, standard error: what its
        message box said; output: the output document's path)."""
        home = home or self.home
        folder = folder or tempfile.mkdtemp(dir=self.tmp.name)
        source, output = os.path.join(folder, "in.svg"), os.path.join(folder, "out.svg")
        with open(source, "w") as stream:
            stream.write(document)

        def pref(value):
            return str(value).lower() if isinstance(value, bool) else value
        prefs = " ".join('org.fontrix.%s.%s="%s"' % (name, key, pref(value)) for key, value in options.items())
        os.makedirs(os.path.join(home, ".config", "inkscape"), exist_ok=True)
        with open(os.path.join(home, ".config", "inkscape", "preferences.xml"), "w") as stream:
            stream.write('<?xml version="1.0" encoding="UTF-8" standalone="no"?>\n<inkscape version="1">'
                         '<group id="extensions" python-interpreter="%s" %s /></inkscape>\n'
                         % (os.path.join(HERE, "logged_python.py"), prefs))
        before = self.runs()
        actions = ("select-by-id:%s;" % select if select else "") + \
            "org.fontrix.%s.noprefs;export-filename:%s;export-do" % (name, output)
        done = run(["xvfb-run", "-a", "/usr/bin/python3", os.path.join(HERE, "inkscape_driver.py"), self.log, "120",
                    "inkscape", "--with-gui", "--batch-process", "--actions=" + actions, source],
                   env=dict(self.env, HOME=home))
        self.assertEqual(done.returncode, 0, done.stderr)
        runs = self.runs()[len(before):]
        self.assertEqual(len(runs), 1, "the effect org.fontrix.%s did not run: %s" % (name, done.stderr))
        import inkex
        return inkex.load_svg(output).getroot(), dict(runs[0], output=output)

    def script(self, name, document, select=None, extension=None, source=None, env=None, **options):
        """Runs effect NAME's script as Inkscape does, without Inkscape: quicker, for the cases
        whose box Inkscape shows like any other. Same answer as effect(). SOURCE is where the
        document is written (a new folder's in.svg by default), ENV more environment."""
        extension = extension or os.path.join(self.home, ".config", "inkscape", "extensions", "fontrix")
        source = source or os.path.join(tempfile.mkdtemp(dir=self.tmp.name), "in.svg")
        with open(source, "w") as stream:
            stream.write(document)
        args = ["--id=" + select] if select else []
        args += ["--%s=%s" % (key, str(value).lower() if isinstance(value, bool) else value)
                 for key, value in options.items()]
        done = subprocess.run(["/usr/bin/python3", "fontrix_%s.py" % name.replace("-", "_"), *args, source],
                              capture_output=True, cwd=extension, timeout=300,
                              env=dict(self.env, PYTHONPATH=EXTENSIONS, **(env or {})))
        import inkex
        out = inkex.load_svg(io.BytesIO(done.stdout or document.encode())).getroot()
        return out, {"status": done.returncode, "stderr": done.stderr.decode()}

    def runs(self):
        if not os.path.exists(self.log):
            return []
        with open(self.log) as stream:
            return [json.loads(line) for line in stream if line.strip()]

    def picture(self, document, name):
        if PICTURES:
            path = os.path.join(self.tmp.name, name + ".svg")
            with open(path, "wb") as stream:
                stream.write(document.tostring())
            png = os.path.join(PICTURES, name + ".png")
            check(run(["inkscape", path, "--export-type=png", "--export-area-drawing", "--export-margin=4",
                       "--export-background=white", "--export-width=640", "--export-filename=" + png], env=self.env))
            from PIL import Image
            with Image.open(png) as picture:  # sixteen greys keep the README's pictures small
                picture.convert("L").quantize(16).save(png, optimize=True)

    def samples(self, document, board_prefix):
        """The sample text objects of the board whose group's id starts with BOARD_PREFIX."""
        boards = self.boards(document, board_prefix)
        self.assertEqual(len(boards), 1, "one board")
        return self.board_samples(boards[0])

    @staticmethod
    def boards(document, board_prefix):
        return [g for g in document.iter() if (g.get("id") or "").startswith(board_prefix)]

    @staticmethod
    def board_samples(board):
        return [t for t in board.iter() if (t.get("id") or "").startswith("fontrix-sample-")
                and t.tag.endswith("}text")]

    def assert_boards_clear(self, record, board_prefix, artwork):
        """The boards of the output document, as Inkscape lays it out, overlap none of the
        objects whose ids are ARTWORK, nor each other."""
        done = check(run(["inkscape", "--query-all", record["output"]], env=self.env))
        boxes = {}
        for line in done.stdout.splitlines():
            parts = line.split(",")
            if len(parts) == 5:
                x, y, w, h = map(float, parts[1:])
                boxes[parts[0]] = (x, y, x + w, y + h)
        boards = [i for i in boxes if i.startswith(board_prefix)]
        self.assertTrue(boards, "no board laid out")
        for index, board in enumerate(boards):
            for other in list(artwork) + boards[index + 1:]:
                a, b = boxes[board], boxes[other]
                overlap = min(a[2], b[2]) - max(a[0], b[0]) > 0.01 and min(a[3], b[3]) - max(a[1], b[1]) > 0.01
                self.assertFalse(overlap, "%s %s overlaps %s %s" % (board, a, other, b))

    def assert_set_in(self, text, font):
        """The text object is set in fontrix's face: its family, and CSS weight and slant."""
        import fontrix_ink
        style = text.style
        self.assertEqual(fontrix_ink.split_families(style.get("font-family")), [font["family"]])
        self.assertEqual(fontrix_ink.parse_weight(style.get("font-weight"), 400),
                         round(fontrix_ink.css_weight(font["weight"]) / 100) * 100, font)
        self.assertEqual(style.get("font-style"), {100: "italic", 110: "oblique"}.get(font["slant"], "normal"))

    def assert_untouched_document(self, document):
        self.assertFalse([e for e in document.iter() if (e.get("id") or "").startswith("fontrix-")])

    def test_similar_fonts_board_and_replacing_the_selection(self):
        document = SVG_HEAD + (
            '<text id="t1" x="12" y="30" style="font-family:\'DejaVu Sans\';font-weight:bold;font-size:12px;'
            '-inkscape-font-specification:\'DejaVu Sans Bold\'"><tspan id="t1s" x="12" y="30">Quick brown fox'
            '</tspan></text>') + SVG_TAIL
        out, record = self.effect("similar", document, "t1", count=4, other_families=True, same_class=False,
                                  replace=False)
        self.assertEqual((record["status"], record["stderr"]), (0, ""))
        answer = self.tool("similar", "DejaVu Sans:weight=200:slant=0", "--other-families", "--limit", "4")
        self.assertEqual(answer["query"], "DejaVuSans-Bold")
        samples = self.samples(out, "fontrix-similar-")
        self.assertEqual(len(samples), len(answer["results"]))
        self.assertEqual(len(samples), 4)
        for text, font in zip(samples, answer["results"]):
            self.assertEqual(text.get_text(), "Quick brown fox")
            self.assert_set_in(text, font)
        labels = [t.get_text() for t in out.iter() if (t.get("id") or "").startswith("fontrix-label-")
                  and t.tag.endswith("}text")]
        self.assertEqual(labels, ["%d. %s %s  %.3f" % (i + 1, f["family"], f["style"], f["score"])
                                  for i, f in enumerate(answer["results"])])
        self.assertEqual(out.getElementById("t1").style.get("font-family"), "'DejaVu Sans'")
        self.picture(out, "similar")

        # Same classes only, and the selection set in the first answer.
        out, record = self.effect("similar", document, "t1", count=3, other_families=True, same_class=True,
                                  replace=True)
        self.assertEqual(record["status"], 0, record["stderr"])
        classes = next(f["classes"] for f in self.tool("classes")["fonts"] if f["name"] == "DejaVuSans-Bold")
        args = [a for c in classes for a in ("--class", c)]
        answer = self.tool("similar", "DejaVu Sans:weight=200:slant=0", "--other-families", "--limit", "3", *args)
        samples = self.samples(out, "fontrix-similar-")
        self.assertEqual([t.style.get("font-family") for t in samples],
                         ["'%s'" % f["family"] for f in answer["results"]])
        self.assert_set_in(out.getElementById("t1"), answer["results"][0])
        self.assertIsNone(out.getElementById("t1s").style.get("font-family"))

    def test_similar_fonts_of_several_texts_in_mixed_fonts(self):
        import fontrix_ink
        # The first line mixes fonts in nested tspans; its first characters, and a word of the
        # second line, are DejaVu Sans Mono. A grey block stands where a board beside the first
        # text would go.
        document = SVG_HEAD + (
            '<rect id="wall" x="110" y="0" width="40" height="200" style="fill:#cccccc"/>'
            '<text id="m" x="12" y="30" xml:space="preserve" style="font-family:\'DejaVu Serif\';font-size:8px">'
            '<tspan sodipodi:role="line" id="m1" x="12" y="30">'
            '<tspan id="m1a" style="font-family:\'DejaVu Sans Mono\'">'
            'Mono</tspan> and <tspan id="m1b" style="font-weight:bold">bold  serif</tspan></tspan>'
            '<tspan sodipodi:role="line" id="m2" x="12" y="40">then <tspan id="m2a" '
            'style="font-family:\'DejaVu Sans Mono\'">mono</tspan> again</tspan></text>'
            '<text id="s" x="12" y="110" style="font-family:\'DejaVu Sans\';font-size:8px">'
            '<tspan id="s1" x="12" y="110">Sans text</tspan></text>'
            '<text id="b" x="12" y="170" style="font-family:\'DejaVu Serif\';font-weight:bold;font-size:8px">'
            '<tspan id="b1" x="12" y="170">Serif text</tspan></text>') + SVG_TAIL
        out, record = self.effect("similar", document, "m,s,b", count=3, other_families=True, same_class=False,
                                  replace=True)
        self.assertEqual((record["status"], record["stderr"]), (0, ""))
        queries = (("DejaVu Sans Mono:weight=80:slant=0", "Mono and bold serif"),
                   ("DejaVu Sans:weight=80:slant=0", "Sans text"),
                   ("DejaVu Serif:weight=200:slant=0", "Serif text"))
        answers = [self.tool("similar", pattern, "--other-families", "--limit", "3") for pattern, _ in queries]
        boards = self.boards(out, "fontrix-similar-")
        with self.subTest("the board's sample is the text's own first line"):
            self.assertEqual([t.get_text() for t in self.board_samples(boards[0])], [queries[0][1]] * 3)
        with self.subTest("only the characters in the font asked about are set in the first answer"):
            first = answers[0]["results"][0]
            for element in ("m1a", "m2a"):
                self.assert_set_in(out.getElementById(element), first)
            for element, weight in (("m1", 400), ("m1b", 700), ("m2", 400)):
                face = fontrix_ink.element_face(out.getElementById(element))
                self.assertEqual((face.family, face.weight), ("DejaVu Serif", weight), element)
        with self.subTest("a board for each text"):
            self.assertEqual(len(boards), 3)
            for board, (_, line), answer, text in zip(boards, queries, answers, "msb"):
                samples = self.board_samples(board)
                self.assertEqual(len(samples), len(answer["results"]))
                for sample, font in zip(samples, answer["results"]):
                    self.assertEqual(sample.get_text(), line)
                    self.assert_set_in(sample, font)
            self.assert_set_in(out.getElementById("s"), answers[1]["results"][0])
            self.assert_set_in(out.getElementById("b"), answers[2]["results"][0])
        with self.subTest("the boards overlap nothing"):
            self.assert_boards_clear(record, "fontrix-similar-", ["wall", "m", "s", "b"])

    def test_identify_reads_only_the_part_of_the_picture_the_page_shows(self):
        from PIL import Image
        # Two lines, DejaVu Serif Bold above DejaVu Sans Mono; a clip shows the top one only.
        lines = []
        for font in ("DejaVu Serif:bold", "DejaVu Sans Mono"):
            path = os.path.join(self.tmp.name, "line.png")
            check(run([self.fontrix, "specimen", font, "Handgloves quick brown", "-o", path, "--size", "48"],
                      env=self.env))
            with Image.open(path) as line:
                lines.append(line.convert("L"))
        width = max(line.width for line in lines) + 40
        picture = Image.new("L", (width, 200), 255)
        picture.paste(lines[0], (20, 20))
        picture.paste(lines[1], (20, 120))
        data = io.BytesIO()
        picture.save(data, "PNG")
        # A quarter of a unit per pixel: the clip's edges fall on whole pixels.
        document = SVG_HEAD + (
            '<clipPath id="topline"><rect x="10" y="12" width="%g" height="20"/></clipPath>'
            '<image id="img" x="10" y="10" width="%g" height="50" preserveAspectRatio="none" '
            'clip-path="url(#topline)" xlink:href="data:image/png;base64,%s"/>'
            % (width / 4.0, width / 4.0, base64.b64encode(data.getvalue()).decode())) + SVG_TAIL
        out, record = self.effect("identify", document, "img", count=4, sample="Hamburgefonstiv")
        self.assertEqual((record["status"], record["stderr"]), (0, ""))
        shown = os.path.join(self.tmp.name, "shown.png")
        picture.crop((0, 8, width, 88)).save(shown)
        answer = self.tool("recognize", shown, "--limit", "4")
        samples = self.samples(out, "fontrix-identify-")
        self.assertTrue(answer["results"])
        self.assertEqual(len(samples), len(answer["results"]))
        installed = {f["name"]: f for f in self.tool("fonts")["fonts"]}
        for text, font in zip(samples, answer["results"]):
            self.assertEqual(text.get_text(), "Hamburgefonstiv")
            # An open font that is not installed is drawn in the installed font most like it.
            self.assert_set_in(text, font if font.get("installed", True) else installed[font["closest_installed"][0]])
        board = " ".join(t.get_text() for t in self.boards(out, "fontrix-identify-")[0].iter()
                         if t.tag.endswith("}text"))
        absent = [f for f in answer["results"] if f.get("installed") is False]
        self.assertEqual(board.count("not installed: open font, "), len(absent), board)
        self.picture(out, "identify")

    def test_identify_reads_linked_pictures(self):
        import urllib.request
        folder = tempfile.mkdtemp(dir=self.tmp.name)
        os.makedirs(os.path.join(folder, "pics"))
        picture = os.path.join(folder, "pics", "line.png")
        check(run([self.fontrix, "specimen", "DejaVu Serif:bold", "Handgloves quick brown", "-o", picture,
                   "--size", "48"], env=self.env))
        odd = os.path.join(folder, "pics", "a line \u00e9.png")  # a name a link percent-encodes
        shutil.copy(picture, odd)
        answer = self.tool("recognize", picture, "--limit", "3")
        self.assertTrue(answer["results"])
        from PIL import Image
        with Image.open(picture) as line:
            width, height = line.width / 4.0, line.height / 4.0
        image = ('<image id="img" x="10" y="10" width="%g" height="%g" preserveAspectRatio="none" '
                 'xlink:href="%%s" %%s/>' % (width, height))

        def found(out, record):
            self.assertEqual((record["status"], record["stderr"]), (0, ""))
            samples = self.samples(out, "fontrix-identify-")
            self.assertEqual(len(samples), len(answer["results"]))
            for text, font in zip(samples, answer["results"]):
                self.assert_set_in(text, font)

        # Linked relative to the document, whose copy Inkscape gives the effect is elsewhere; a
        # block stands under the image, where the board would go.
        block = '<rect id="under" x="10" y="%g" width="%g" height="30" style="fill:#cccccc"/>' % (height + 11, width)
        out, record = self.effect("identify", SVG_HEAD + image % ("pics/line.png", "") + block + SVG_TAIL, "img",
                                  folder=folder, count=3)
        found(out, record)
        self.assert_boards_clear(record, "fontrix-identify-", ["img", "under"])

        # The same, run as Inkscape runs the script, on a copy in another folder.
        elsewhere = os.path.join(tempfile.mkdtemp(dir=self.tmp.name), "copy.svg")
        for href, more, env in (
                ("file://" + urllib.request.pathname2url(odd), "", {}),
                ("pics/a%20line%20%C3%A9.png", "", {"DOCUMENT_PATH": os.path.join(folder, "in.svg")}),
                ("gone/line.png", 'sodipodi:absref="%s"' % picture, {})):
            found(*self.script("identify", SVG_HEAD + image % (href, more) + SVG_TAIL, "img", source=elsewhere,
                               env=env, count=3))
        out, record = self.script("identify", SVG_HEAD + image % ("pics/none.png", "") + SVG_TAIL, "img",
                                  source=os.path.join(folder, "in.svg"), count=3)
        self.assertNotEqual(record["status"], 0)
        self.assertEqual(record["stderr"], "The picture the selected image links to cannot be found: %s.\n"
                         % os.path.join(folder, "pics", "none.png"))
        self.assert_untouched_document(out)

    def test_replace_missing_fonts(self):
        import fontrix_ink
        installed = {f["family"].lower() for f in self.tool("fonts", "--all")["fonts"]}
        # A library face of the shipped similarity table that this machine lacks.
        with open(os.path.join(SOURCE, "data", "NQ_sim_meta_fs.bin")) as meta:
            fields = meta.read().splitlines()
        table = [fields[i:i + 6] for i in range(0, len(fields), 6)]
        face = next(f for f in table if len(f[0]) == 7 and f[5] == "Bold" and f[4].lower() not in installed
                    and re.fullmatch(r"[A-Za-z ]+", f[4]))
        family = face[4]
        later = "'Helvetica Neue', 'DejaVu Serif', serif"
        document = SVG_HEAD + (
            '<text id="lib" x="10" y="20" style="font-family:\'%s\';font-weight:bold;font-size:10px">'
            '<tspan id="libs" x="10" y="20">was %s Bold</tspan></text>'
            '<text id="alias" x="10" y="40" style="font-family:Helvetica;font-size:10px">'
            '<tspan x="10" y="40">was Helvetica</tspan></text>'
            '<text id="unknown" x="10" y="60" style="font-family:\'Zzyzx Grotesk\', sans-serif;font-style:italic;'
            'font-size:10px"><tspan x="10" y="60">was Zzyzx Grotesk Italic</tspan></text>'
            '<text id="here" x="10" y="80" style="font-family:\'DejaVu Sans\';font-size:10px">'
            '<tspan x="10" y="80">DejaVu Sans, installed</tspan></text>'
            '<text id="later" x="10" y="100" style="font-family:%s;font-size:10px">'
            '<tspan x="10" y="100">a later family is installed</tspan></text>'
            '<text id="gotham" x="10" y="120" style="font-family:\'Gotham Light\', sans-serif;font-size:10px">'
            '<tspan x="10" y="120">was Gotham Light</tspan></text>' % (family, family, later.replace("'", "&apos;"))
        ) + SVG_TAIL

        out, record = self.script("replace", document, list_only=True)
        self.assertEqual(record["status"], 0, record["stderr"])
        report = record["stderr"]
        self.assertTrue(report.startswith("Missing fonts, and the installed fonts that would replace them:"),
                        report)
        self.assertIn(family + " Bold → ", report)
        self.assertIn("Zzyzx Grotesk Italic → ", report)
        self.assertIn("Helvetica Neue: kept, DejaVu Serif, later in the list, is installed (1 text)", report)
        # The installed font is not missing (though it may well be a replacement).
        self.assertFalse(any(line.startswith("DejaVu Sans") for line in report.splitlines()), report)
        self.assertNotIn("Traceback", report)
        self.assertEqual(out.getElementById("lib").style.get("font-family"), "'%s'" % family)

        out, record = self.effect("replace", document, list_only=False)
        self.assertEqual(record["status"], 0, record["stderr"])
        self.assertTrue(record["stderr"].startswith("Missing fonts replaced:"), record["stderr"])

        def substitute(css, *args):
            (answer,) = self.tool("substitute", css, *args)["substitutions"]
            return answer, {"family": answer["family"], "weight": fontrix_ink.fc_weight(answer["weight"] or 400),
                            "slant": 100 if answer["italic"] else 0}

        # Each text set as fontrix substitute says: the table face replaced by the installed font
        # most like it, the well-known families drawn by their clone or replaced by a look-alike.
        for element, css, args, description in (("lib", "'%s'" % family, ["--weight", "700"], family + " Bold"),
                                                ("alias", "Helvetica", [], "Helvetica"),
                                                ("gotham", "'Gotham Light', sans-serif", [], "Gotham Light")):
            with self.subTest(element):
                answer, font = substitute(css, *args)
                self.assertIn(answer["action"], ("keep", "replace"), answer)
                if answer["action"] == "keep":
                    self.assertEqual(fontrix_ink.split_families(out.getElementById(element).style.get("font-family")),
                                     fontrix_ink.split_families(css))
                    self.assertIn("%s: kept, %s" % (description, answer["why"]), record["stderr"])
                else:
                    self.assert_set_in(out.getElementById(element), font)
                    said = "%s → %s %s (%s; 1 text)" % (description, answer["family"], answer["style"], answer["why"])
                    self.assertIn(said, record["stderr"])
                    self.assertIn(answer["family"].lower(), installed)
        # A name nobody knows: the installed face fontconfig gives for its generic family.
        fonts = {f["name"]: f for f in self.tool("fonts", "--all")["fonts"]}
        generic = self.tool("similar", "sans-serif:weight=80:slant=100", "--limit", "1")
        self.assert_set_in(out.getElementById("unknown"), fonts[generic["query"]])
        self.assertIn("Zzyzx Grotesk Italic → %s %s (unknown to Fontrix; fontconfig's sans-serif font"
                      % (fonts[generic["query"]]["family"], fonts[generic["query"]]["style"]), record["stderr"])
        # Lists drawn here stay as they are.
        self.assertEqual(out.getElementById("here").style.get("font-family"), "'DejaVu Sans'")
        self.assertEqual(fontrix_ink.split_families(out.getElementById("later").style.get("font-family")),
                         ["Helvetica Neue", "DejaVu Serif", "serif"])
        self.picture(out, "replace")

    def test_fonts_by_style(self):
        # A ticked class is one a font has, whatever others it has too. A block stands at the
        # page's top left, where the board goes without a selection.
        document = SVG_HEAD + '<rect id="corner" x="0" y="0" width="80" height="50" style="fill:#cccccc"/>' + SVG_TAIL
        out, record = self.effect("by-style", document, monospace=True, serif=False, count=500,
                                  sample="Hamburgefonstiv")
        self.assertEqual((record["status"], record["stderr"]), (0, ""))
        answer = self.tool("classes", "monospace")
        # DejaVu Sans Mono is sans serif too: the board must not need a font to be monospace only.
        self.assertTrue([f for f in answer["fonts"] if f["family"] == "DejaVu Sans Mono" and len(f["classes"]) > 1])
        samples = self.samples(out, "fontrix-by-style-")
        self.assertEqual(len(samples), len(answer["fonts"]))
        for text, font in zip(samples, answer["fonts"]):
            self.assertEqual(text.get_text(), "Hamburgefonstiv")
            self.assert_set_in(text, font)
        self.assert_boards_clear(record, "fontrix-by-style-", ["corner"])
        self.picture(out, "by-style")

        # At most COUNT fonts, the board saying how many were left out.
        out, record = self.script("by-style", SVG_HEAD + SVG_TAIL, serif=True, count=1)
        self.assertEqual(record["status"], 0, record["stderr"])
        answer = self.tool("classes", "serif")
        self.assertGreater(len(answer["fonts"]), 1)  # DejaVu Serif and DejaVu Serif Bold at least
        samples = self.samples(out, "fontrix-by-style-")
        self.assertEqual(len(samples), 1)
        self.assert_set_in(samples[0], answer["fonts"][0])
        titles = [t.get_text() for t in out.iter() if (t.get("id") or "").startswith("fontrix-title-")
                  and t.tag.endswith("}text")]
        self.assertEqual(len(titles), 1)
        self.assertIn("1 of %d" % len(answer["fonts"]), titles[0])

    def test_errors_are_one_sentence_in_a_message_box(self):
        document = SVG_HEAD + ('<text id="t1" x="10" y="20" style="font-size:10px">Words</text>'
                               '<text id="t2" x="10" y="40" style="font-family:\'Zzyzx Grotesk\';font-size:10px">'
                               'Words</text>') + SVG_TAIL
        out, record = self.effect("similar", document)
        self.assertNotEqual(record["status"], 0)
        self.assertEqual(record["stderr"], "Select a text object first.\n")
        self.assert_untouched_document(out)
        for name, select, options, said in (
                ("identify", "t1", {}, "Identify font works on a bitmap image, and the selection holds none."),
                ("by-style", None, {}, "Tick at least one style class."),
                ("similar", "t2", {}, "Fontrix knows no font Zzyzx Grotesk: it is not installed, nor a font its "
                                      "data knows.")):
            out, record = self.script(name, document, select, **options)
            self.assertNotEqual(record["status"], 0, name)
            self.assertEqual(record["stderr"], said + "\n", name)
            self.assert_untouched_document(out)

    def test_installed_into_the_user_folder_and_without_fontrix(self):
        home = os.path.join(self.tmp.name, "home2")
        user = os.path.join(home, ".config", "inkscape", "extensions")
        check(run([CMAKE, "--install", BUILD, "--prefix", self.prefix],
                  env=dict(self.env, FONTRIX_INKSCAPE_EXTENSIONS_DIR=user)))
        location = os.path.join(user, "fontrix", "fontrix_location.py")
        with open(location) as stream:
            self.assertIn('FONTRIX = "%s"' % self.fontrix, stream.read())
        shutil.copytree(os.path.join(self.home, ".cache"), os.path.join(home, ".cache"))
        out, record = self.effect("by-style", SVG_HEAD + SVG_TAIL, home=home, monospace=True, serif=False, count=2)
        self.assertEqual(record["status"], 0, record["stderr"])
        self.assertEqual(len(self.samples(out, "fontrix-by-style-")), 2)

        # The tool it was installed with is gone, and none is beside it or on PATH.
        if shutil.which("fontrix", path="/usr/bin:/bin"):
            self.skipTest("a fontrix is installed in /usr/bin")
        with open(location, "w") as stream:
            stream.write('FONTRIX = "%s"\n' % os.path.join(self.tmp.name, "gone", "fontrix"))
        saved, self.env = self.env, dict(self.env, PATH="/usr/bin:/bin")
        try:
            out, record = self.script("by-style", SVG_HEAD + SVG_TAIL, extension=os.path.dirname(location), serif=True)
        finally:
            self.env = saved
        self.assertNotEqual(record["status"], 0)
        self.assertEqual(record["stderr"].strip(), "The fontrix tool was not found: install Fontrix (cmake --install) "
                                                   "or put its fontrix program on PATH.")
        self.assert_untouched_document(out)


def check(done):
    if done.returncode != 0:
        raise AssertionError("%s failed:\n%s%s" % (" ".join(done.args), done.stdout, done.stderr))
    return done


if __name__ == "__main__":
    BUILD, CMAKE = sys.argv[1], sys.argv[2]
    rest = sys.argv[3:]
    if rest[:1] == ["--pictures"]:
        PICTURES = os.path.abspath(rest[1])
        rest = rest[2:]
    absent = missing_programs()
    if absent:
        print("skipped: the Inkscape tests need %s (scripts/setup.sh --tests installs them)" % ", ".join(absent))
        sys.exit(SKIP)
    unittest.main(argv=sys.argv[:1] + rest, verbosity=2)  # the log says why a test was skipped
