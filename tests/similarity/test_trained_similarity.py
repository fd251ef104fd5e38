#!/usr/bin/python3
"""The similarity service on the shipped, trained data (data/) and the machine's fonts: the
fonts of the shipped table are matched by name, and a font's same-outline clone scores above
faces of other designs, whatever else is installed.

Usage: test_trained_similarity.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import json

from shipped_data_tool import ShippedDataTest, main


class TrainedSimilarityTest(ShippedDataTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        r = cls.run_tool("--disable", "classification,recognition", "index", "--json")
        assert r.returncode == 0, r.stderr
        cls.index = json.loads(r.stdout)

    def scores(self, font):
        r = self.run_tool("--disable", "classification,recognition", "similar", font, "--json", "--limit", "80")
        self.assertEqual(r.returncode, 0, r.stderr)
        return {x["name"]: x["score"] for x in json.loads(r.stdout)["results"]}

    def test_installed_fonts_of_the_shipped_table_are_not_recomputed(self):
        similarity = next(s for s in self.index["services"] if s["service"] == "similarity")
        self.assertGreater(similarity["matched"], 100)  # DejaVu, Liberation, URW, TeX Gyre ... by name

    def test_a_fonts_clone_is_nearer_than_other_designs(self):
        # TeX Gyre redraws URW's outlines: the clone must score above faces of another design. Scores
        # of pairs do not depend on what else is installed; the 80 answers always hold the clone.
        mono, gothic, chancery = "NimbusMonoPS-Regular", "URWGothic-Book", "Z003-MediumItalic"
        for font, clone, others in (
                ("NimbusRoman-Regular", "TeXGyreTermes-Regular", (mono, gothic, chancery)),
                ("NimbusSans-Regular", "TeXGyreHeros-Regular", (mono, "C059-Roman", chancery)),
                ("C059-Roman", "TeXGyreSchola-Regular", ("NimbusSans-Regular", mono, gothic)),
                ("P052-Roman", "TeXGyrePagella-Regular", ("NimbusSans-Regular", mono, gothic))):
            scores = self.scores(font)
            self.assertIn(clone, scores, font)
            for other in others:
                self.assertLess(scores.get(other, -2.0), scores[clone], f"{font}: {other} above {clone}")


if __name__ == "__main__":
    main()
