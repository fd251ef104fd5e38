#!/usr/bin/python3
"""The similarity service on the shipped, trained data (data/) and the machine's fonts: the
installed fonts nearest a font include other styles of its family, and its metric clones
(fonts drawn to the same widths) rank near it.

Usage: test_trained_similarity.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

FONTRIX = MODULE = DATA = None


class TrainedSimilarityTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.cache = os.path.join(cls.tmp.name, "cache")
        cls.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}
        r = cls.run_tool("--disable", "classification,recognition", "index", "--json")
        assert r.returncode == 0, r.stderr
        cls.index = json.loads(r.stdout)

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @classmethod
    def run_tool(cls, *args):
        return subprocess.run([FONTRIX, "--module", MODULE, "--data-dir", DATA, "--cache-dir", cls.cache, *args],
                              capture_output=True, text=True, timeout=900, env=cls.env)

    def nearest(self, font, count=5):
        r = self.run_tool("--disable", "classification,recognition", "similar", font, "--json", "--limit", str(count + 1))
        self.assertEqual(r.returncode, 0, r.stderr)
        return [x["name"] for x in json.loads(r.stdout)["results"] if x["name"] != font][:count]

    def test_installed_fonts_of_the_shipped_table_are_not_recomputed(self):
        similarity = next(s for s in self.index["services"] if s["service"] == "similarity")
        self.assertGreater(similarity["matched"], 100)  # DejaVu, Liberation, URW, TeX Gyre ... by name

    def test_a_fonts_family_and_clones_are_near_it(self):
        for font, kin in (("DejaVuSerif", "DejaVuSerif"), ("LiberationMono", "LiberationMono"),
                          ("NimbusRoman-Regular", "NimbusRoman"), ("TeXGyreHeros-Regular", "TeXGyreHeros")):
            names = self.nearest(font)
            self.assertTrue(any(n.startswith(kin) for n in names), f"{font}: {names}")


if __name__ == "__main__":
    FONTRIX, MODULE, DATA = sys.argv[1:4]
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
