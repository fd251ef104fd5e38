#!/usr/bin/python3
"""Recognition with the shipped, trained data (data/): lines drawn in installed fonts through
our own glue, at sizes and in words the network never saw together, come back as the font that
drew them.

Usage: test_trained_recognition.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

FONTRIX = MODULE = DATA = None

# Installed by scripts/setup.sh, in the recognition font table, and of different designs.
FONTS = ("DejaVuSerif", "DejaVuSans-Bold", "LiberationMono", "Cantarell-Regular", "C059-Italic",
         "URWBookman-Light", "NimbusSans-Regular", "TeXGyreSchola-Bold", "Z003-MediumItalic", "P052-Roman")
LINES = ("Fjord quiz vexes blacksmiths", "handgloves 1984 and myths")


class TrainedRecognitionTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.cache = os.path.join(cls.tmp.name, "cache")
        cls.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}
        r = cls.run_tool("index")
        assert r.returncode == 0, r.stderr
        cls.installed = {f["name"] for f in json.loads(cls.run_tool("fonts", "--json").stdout)["fonts"]}

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @classmethod
    def run_tool(cls, *args):
        return subprocess.run([FONTRIX, "--module", MODULE, "--data-dir", DATA, "--cache-dir", cls.cache, *args],
                              capture_output=True, text=True, timeout=900, env=cls.env)

    def recognised(self, font, text, size):
        picture = os.path.join(self.tmp.name, f"{font}-{size}.png")
        r = self.run_tool("specimen", font, text, "-o", picture, "--size", str(size))
        self.assertEqual(r.returncode, 0, r.stderr)
        r = self.run_tool("recognize", picture, "--json", "--limit", "5")
        self.assertEqual(r.returncode, 0, r.stderr)
        return [x["name"] for x in json.loads(r.stdout)["results"]]

    def test_lines_come_back_as_their_font(self):
        fonts = [f for f in FONTS if f in self.installed]
        self.assertGreaterEqual(len(fonts), 8, "the test fonts are not installed")
        first = top5 = total = 0
        misses = []
        for font in fonts:
            for text, size in zip(LINES, (40, 72)):
                names = self.recognised(font, text, size)
                total += 1
                first += bool(names) and names[0] == font
                top5 += font in names
                if not names or names[0] != font:
                    misses.append(f"{font} at {size}: {names[:3]}")
        self.assertGreaterEqual(top5, total - 1, misses)
        self.assertGreaterEqual(first, total * 3 // 4, misses)

if __name__ == "__main__":
    FONTRIX, MODULE, DATA = sys.argv[1:4]
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
