#!/usr/bin/python3
"""fontrix recognize with stand-in data (untrained networks, so only the plumbing is checked,
not which font wins): a line drawn by fontrix specimen goes in, from a file or standard input,
installed fonts come out through the module's recognition suite; pictures without text, bad
pictures and a switched-off service fail clearly.

Usage: test_recognize_cli.py PATH/TO/fontrix PATH/TO/libfontrix.so
"""
import io
import json
import os
import random
import subprocess
import sys
import tempfile
import unittest

FONTRIX = MODULE = None
MAKE_DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "similarity", "make_test_data.py")


class RecognizeCliTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.data = os.path.join(cls.tmp.name, "data")
        cls.cache = os.path.join(cls.tmp.name, "cache")
        subprocess.run(["/usr/bin/python3", MAKE_DATA, cls.data, "DejaVuSans", "DejaVuSerif", "LiberationSans-Regular"],
                       check=True)
        # The stand-in data has no class vote for its table: the vote is off, rather than said missing.
        cls.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}
        cls.env["FONTRIX_DISABLE"] = "class-vote"
        cls.line = os.path.join(cls.tmp.name, "line.png")
        cls.tiny = os.path.join(cls.tmp.name, "tiny.png")
        drawn = cls.run_tool("specimen", "DejaVuSerif", "Handgloves quick brown", "-o", cls.line, "--size", "48")
        assert drawn.returncode == 0
        assert cls.run_tool("specimen", "DejaVuSerif", "i", "-o", cls.tiny, "--size", "12").returncode == 0

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @classmethod
    def run_tool(cls, *args):
        return subprocess.run([FONTRIX, "--module", MODULE, "--data-dir", cls.data, "--cache-dir", cls.cache, *args],
                              capture_output=True, text=True, timeout=600, env=cls.env)

    @classmethod
    def run_piped(cls, data, *args):
        return subprocess.run([FONTRIX, "--module", MODULE, "--data-dir", cls.data, "--cache-dir", cls.cache, *args],
                              input=data, capture_output=True, timeout=600, env=cls.env)

    def page(self, paper=255, frame=False):
        """The line on a 1600 x 1000 page, well away from its edges."""
        from PIL import Image, ImageDraw
        page = Image.new("L", (1600, 1000), paper)
        page.paste(Image.open(self.line).convert("L"), (530, 610))
        if frame:
            ImageDraw.Draw(page).rectangle((6, 6, 1593, 993), outline=40, width=3)
        return page

    @staticmethod
    def encoded(picture, kind, **options):
        out = io.BytesIO()
        picture.save(out, kind, **options)
        return out.getvalue()

    def test_a_picture_from_standard_input(self):
        with open(self.line, "rb") as f:
            png = f.read()
        from_file = self.run_tool("recognize", self.line, "--json")
        self.assertEqual(from_file.returncode, 0, from_file.stderr)
        piped = self.run_piped(png, "recognize", "-", "--json")
        self.assertEqual(piped.returncode, 0, piped.stderr)
        self.assertEqual(json.loads(piped.stdout)["image"], "-")
        self.assertEqual(json.loads(piped.stdout)["results"], json.loads(from_file.stdout)["results"])
        # A JPEG of the line on a tinted page in a frame.
        r = self.run_piped(self.encoded(self.page(228, frame=True), "JPEG", quality=70), "recognize", "-", "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertTrue(json.loads(r.stdout)["results"])
        for data, why in ((b"GIF89a not a picture", "it is a GIF image, and only PNG and JPEG images can be read"),
                          (b"", "nothing came"),
                          (png[:len(png) // 2], "the file ends before its PNG image does")):
            r = self.run_piped(data, "recognize", "-")
            self.assertEqual(r.returncode, 1)
            self.assertEqual(r.stderr.decode(), f"fontrix: cannot load the image from standard input: {why}\n")
        # A stream that is no picture is refused by its first bytes, however much follows.
        tool = subprocess.Popen([FONTRIX, "--module", MODULE, "--data-dir", self.data, "--cache-dir", self.cache,
                                 "recognize", "-"], stdin=subprocess.PIPE, stderr=subprocess.PIPE, env=self.env)
        sent = 0
        try:
            while sent < 1 << 30:
                tool.stdin.write(bytes(1 << 20))
                sent += 1 << 20
        except BrokenPipeError:
            pass
        self.assertEqual(tool.wait(timeout=600), 1)
        self.assertLess(sent, 64 << 20)
        self.assertIn(b"it is neither a PNG nor a JPEG image", tool.stderr.read())

    def test_pictures_without_text_are_refused(self):
        from PIL import Image, ImageDraw
        grain = Image.new("L", (900, 700))
        rng = random.Random(3)
        grain.putdata([min(255, max(0, int(rng.gauss(225, 9)))) for _ in range(900 * 700)])
        frame = Image.new("L", (900, 700), 255)
        ImageDraw.Draw(frame).rectangle((4, 4, 895, 695), outline=0, width=2)
        pictures = {"blank": self.encoded(Image.new("L", (640, 480), 240), "PNG"),
                    "grain": self.encoded(grain, "JPEG", quality=50),
                    "frame": self.encoded(frame, "PNG")}
        for what, data in pictures.items():
            for json_out in ([], ["--json"]):
                r = self.run_piped(data, "recognize", "-", *json_out)
                self.assertEqual((r.returncode, r.stderr.decode(), r.stdout), (1, "fontrix: no text found\n", b""),
                                 what)
        # The line in the middle of the framed page is text, however wide the margins.
        r = self.run_piped(self.encoded(self.page(frame=True), "PNG"), "recognize", "-")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertTrue(r.stdout)

    def test_a_line_gives_installed_fonts_best_first(self):
        installed = {f["name"] for f in json.loads(self.run_tool("fonts", "--json").stdout)["fonts"]}
        r = self.run_tool("recognize", self.line, "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        answer = json.loads(r.stdout)
        self.assertEqual(answer["image"], self.line)
        names = [x["name"] for x in answer["results"]]
        scores = [x["score"] for x in answer["results"]]
        self.assertTrue(0 < len(names) <= 40)
        self.assertTrue(set(names) <= installed)
        self.assertEqual(scores, sorted(scores, reverse=True))
        # The stand-in data has no confidence model: nothing is said about how sure the answers are.
        self.assertNotIn("sure", answer)
        self.assertFalse(any("confidence" in x for x in answer["results"]))
        sheet = os.path.join(self.tmp.name, "sheet.png")
        self.assertEqual(self.run_tool("recognize", self.line, "--limit", "3", "--sheet", sheet).returncode, 0)
        with open(sheet, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")

    def test_pictures_that_cannot_be_recognised(self):
        r = self.run_tool("recognize", self.tiny)  # under 20 pixels high: nothing to recognise
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("no installed font recognised", r.stderr)
        self.assertEqual(r.stdout, "")
        for bad in ("/etc/hostname", os.path.join(self.tmp.name, "missing.png")):
            r = self.run_tool("recognize", bad)
            self.assertEqual(r.returncode, 1)
            self.assertTrue(r.stderr.startswith("fontrix: cannot load the image"), r.stderr)
        r = self.run_tool("--disable", "recognition", "recognize", self.line)
        self.assertEqual(r.returncode, 1)
        self.assertIn("recognition service is not running", r.stderr)


if __name__ == "__main__":
    MODULE = os.path.abspath(sys.argv.pop(2))
    FONTRIX = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)  # the log says why a test was skipped
