#!/usr/bin/python3
"""fontrix recognize with stand-in data (untrained networks, so only the plumbing is checked,
not which font wins): a line drawn by fontrix specimen goes in, installed fonts come out through
the module's recognition suite; bad pictures and a switched-off service fail clearly.

Usage: test_recognize_cli.py PATH/TO/fontrix PATH/TO/libfontrix.so
"""
import json
import os
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
        cls.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}
        cls.line = os.path.join(cls.tmp.name, "line.png")
        cls.tiny = os.path.join(cls.tmp.name, "tiny.png")
        assert cls.run_tool("specimen", "DejaVuSerif", "Handgloves quick brown", "-o", cls.line, "--size", "48").returncode == 0
        assert cls.run_tool("specimen", "DejaVuSerif", "i", "-o", cls.tiny, "--size", "12").returncode == 0

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @classmethod
    def run_tool(cls, *args):
        return subprocess.run([FONTRIX, "--module", MODULE, "--data-dir", cls.data, "--cache-dir", cls.cache, *args],
                              capture_output=True, text=True, timeout=600, env=cls.env)

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
    unittest.main()
