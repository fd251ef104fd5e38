#!/usr/bin/python3
"""fontrix index and fontrix similar on this machine's fonts, with stand-in similarity data (a
small network and a generated shipped table): the module images every installed font once,
keeps them in its cache files, and answers similar-font queries as its suite does, filtered by
family and class, and for a face of its shipped table that is not installed.

Usage: test_similar_cli.py PATH/TO/fontrix PATH/TO/libfontrix.so
"""
import json
import os
import subprocess
import sys
import tempfile
import unittest

import numpy as np

FONTRIX = MODULE = None
HERE = os.path.dirname(os.path.abspath(__file__))


class SimilarCliTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.data = os.path.join(cls.tmp.name, "data")
        cls.cache = os.path.join(cls.tmp.name, "cache")
        subprocess.run(["/usr/bin/python3", os.path.join(HERE, "make_test_data.py"), cls.data], check=True)
        cls.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def run_tool(self, *args):
        # The stand-in data has no recognition network: that service is off.
        return subprocess.run([FONTRIX, "--module", MODULE, "--data-dir", self.data, "--cache-dir", self.cache,
                               "--disable", "recognition", *args],
                              capture_output=True, text=True, timeout=600, env=self.env)

    def test_1_index_images_every_font_once(self):
        first = self.run_tool("index", "--json")
        self.assertEqual(first.returncode, 0, first.stderr)
        similarity = json.loads(first.stdout)["services"][1]
        self.assertEqual(similarity["service"], "similarity")
        self.assertGreater(similarity["fonts"], 10)
        self.assertEqual(similarity["computed"] + similarity["unusable"] + similarity["matched"], similarity["fonts"])
        self.assertGreater(similarity["computed"], 0)
        entries = os.path.getsize(os.path.join(self.cache, "NQ_sim_fea_sys.cch")) // 3072
        self.assertEqual(entries, similarity["computed"])
        with open(os.path.join(self.cache, "NQ_sim_meta_sys.cch")) as meta:
            self.assertEqual(len(meta.read().splitlines()), 6 * entries)
        again = json.loads(self.run_tool("index", "--json").stdout)["services"][1]
        self.assertEqual((again["computed"], again["matched"]), (0, similarity["computed"]))

    def test_2_similar_fonts_are_installed_best_first(self):
        installed = {f["name"] for f in json.loads(self.run_tool("fonts", "--json").stdout)["fonts"]}
        r = self.run_tool("similar", "DejaVuSans", "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        answer = json.loads(r.stdout)
        self.assertEqual(answer["query"], "DejaVuSans")
        names = [x["name"] for x in answer["results"]]
        scores = [x["score"] for x in answer["results"]]
        self.assertTrue(0 < len(names) <= 80)
        self.assertNotIn("DejaVuSans", names)
        self.assertTrue(set(names) <= installed)
        self.assertEqual(scores, sorted(scores, reverse=True))
        self.assertTrue(all(s <= 2.0001 for s in scores))
        self.assertEqual(answer["results"][0]["family"] != "", True)
        limited = json.loads(self.run_tool("similar", "DejaVuSans", "--json", "--limit", "3").stdout)["results"]
        self.assertEqual([x["name"] for x in limited], names[:3])

    def test_3_contact_sheet_is_a_png(self):
        sheet = os.path.join(self.tmp.name, "sheet.png")
        r = self.run_tool("similar", "DejaVuSerif", "--limit", "4", "--sheet", sheet)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(sheet, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")

    def test_4_unknown_fonts_and_a_switched_off_service_fail_clearly(self):
        r = self.run_tool("similar", "DejaVuSanz")
        self.assertEqual(r.returncode, 1)
        self.assertIn("close names: DejaVuSans", r.stderr)
        r = self.run_tool("--disable", "similarity", "similar", "DejaVuSans")
        self.assertEqual(r.returncode, 1)
        self.assertIn("similarity service is not running", r.stderr)

    def similar(self, *args):
        r = self.run_tool("similar", *args, "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        return json.loads(r.stdout), r.stderr

    def test_5_filters_keep_the_modules_order_and_fill_the_limit(self):
        everything = self.similar("DejaVuSans", "--limit", "80")[0]["results"]
        names = [x["name"] for x in everything]
        other = self.similar("DejaVuSans", "--other-families", "--limit", "6")[0]
        self.assertEqual(other["query_family"], "DejaVu Sans")
        expected = [x["name"] for x in everything if x["family"] != "DejaVu Sans"][:6]
        self.assertEqual(len(expected), 6)
        self.assertEqual([x["name"] for x in other["results"]], expected)
        classes = json.loads(self.run_tool("classes", "--json").stdout)["fonts"]
        serif = {f["name"] for f in classes if "fs_serif" in f["classes"]}
        mono = {f["name"] for f in classes if "fs_monospace" in f["classes"]}
        for wanted, kept in ((["--class", "serif"], serif),
                             (["--class", "monospace", "--class", "serif"], serif & mono)):
            answer = self.similar("DejaVuSans", *wanted)[0]["results"]
            self.assertEqual([x["name"] for x in answer], [n for n in names if n in kept], wanted)
            if wanted == ["--class", "serif"]:
                self.assertTrue(answer, "DejaVu Serif, at least, is among the 80")
            for x in answer:
                self.assertTrue({"fs_" + c.replace("-", "_") for c in wanted[1::2]} <= set(x["classes"]), x)

    def cached_vectors(self):
        """The installed fonts' vectors, as the module saved them in its cache pair."""
        with open(os.path.join(self.cache, "NQ_sim_meta_sys.cch")) as meta:
            names = meta.read().splitlines()[3::6]
        vectors = np.fromfile(os.path.join(self.cache, "NQ_sim_fea_sys.cch"), "<f4").reshape(-1, 768)
        return dict(zip(names, vectors))

    def test_6_a_table_face_that_is_not_installed_ranks_installed_fonts_by_its_vector(self):
        shipped = np.fromfile(os.path.join(self.data, "NQ_sim_fea_fs.bin"), "<f4").reshape(1864, 768)
        installed = {f["name"] for f in json.loads(self.run_tool("fonts", "--json").stdout)["fonts"]}
        cached = {n: v for n, v in self.cached_vectors().items() if n in installed and v.any()}
        expected = sorted(cached, key=lambda n: -float(np.dot(cached[n], shipped[7])))[:10]
        for typed in ("Cloud7", "cloud7", "Cloud Family 7", "Cloud Family 7:bold", "Cloud Family 7 Regular"):
            answer, said = self.similar(typed, "--limit", "10")
            self.assertEqual((answer["query"], answer["query_installed"], answer["query_family"]),
                             ("Cloud7", False, "Cloud Family 7"), typed)
            self.assertIn("not installed; answering for Cloud7", said)
            self.assertEqual([x["name"] for x in answer["results"]], expected, typed)
            for x in answer["results"]:
                self.assertAlmostEqual(x["score"], float(np.dot(cached[x["name"]], shipped[7])), places=4)
        # An installed face is asked about as before; a name neither has still fails.
        self.assertTrue(self.similar("DejaVuSans")[0]["query_installed"])
        r = self.run_tool("similar", "Cloud Family 7 Sans")
        self.assertEqual(r.returncode, 1)
        self.assertIn("no installed font is named", r.stderr)


if __name__ == "__main__":
    MODULE = os.path.abspath(sys.argv.pop(2))
    FONTRIX = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)  # the log says why a test was skipped
