#!/usr/bin/python3
"""font-features as the training scripts call it: the 96 named features of installed fonts as
JSON or TSV, clear failures for unknown fonts and bad arguments.

Usage: test_font_features.py PATH/TO/font-features
"""
import json
import math
import subprocess
import sys
import unittest

TOOL = None


def run(*args):
    return subprocess.run([TOOL, *args], capture_output=True, text=True, timeout=120)


class FontFeaturesTest(unittest.TestCase):
    def test_json_and_table(self):
        r = run("--json", "DejaVuSans", "DejaVuSerif-Bold")
        self.assertEqual(r.returncode, 0, r.stderr)
        out = json.loads(r.stdout)
        self.assertEqual(len(out["features"]), 96)
        self.assertEqual(out["features"][67], "curvHistEntropy_std")
        sans, serif_bold = (dict(zip(out["features"], f["values"])) for f in out["fonts"])
        self.assertTrue(all(math.isfinite(v) for v in sans.values()))
        self.assertEqual((sans["IsSerif"], sans["IsBold"]), (0.0, 0.0))
        self.assertEqual(serif_bold["IsBold"], 1.0)
        table = run("DejaVuSans").stdout.splitlines()
        self.assertEqual(len(table), 2)
        self.assertEqual(len(table[1].split("\t")), 97)

    def test_failures(self):
        r = run("Nope-Regular")
        self.assertEqual(r.returncode, 1)
        self.assertIn("no installed font is named 'Nope-Regular'", r.stderr)
        self.assertEqual(run().returncode, 2)
        self.assertEqual(run("--fast", "DejaVuSans").returncode, 2)


if __name__ == "__main__":
    TOOL = sys.argv.pop(1)
    unittest.main(verbosity=2)  # the log says why a test was skipped
