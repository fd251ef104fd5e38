#!/usr/bin/python3
"""The similarity service on the shipped, trained data (data/) and the machine's fonts: the
installed fonts nearest a font include other styles of its family, and its metric clones
(fonts drawn to the same widths) rank near it.

Usage: test_trained_similarity.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import json
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from shipped_data_tool import ShippedDataTest, main  # noqa: E402


class TrainedSimilarityTest(ShippedDataTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        r = cls.run_tool("--disable", "classification,recognition", "index", "--json")
        assert r.returncode == 0, r.stderr
        cls.index = json.loads(r.stdout)

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
    main()
