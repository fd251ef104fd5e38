#!/usr/bin/python3
"""fontrix substitute, and fontrix similar for fonts this machine lacks, on the shipped data
(data/) and the machine's fonts: font-family lists drawn here are kept, a well-known family is
drawn by or replaced with one of the look-alikes data/known_families.tsv names for it (the
fonts scripts/setup.sh installs hold one for each family asked here), unknown names and bad
input fail clearly. The cases that need the known faces' data skip, saying so, while the module
lists none (fontrix fonts --known).

Usage: test_known_fonts_cli.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import json
import os

from shipped_data_tool import ShippedDataTest, main

ONLY_SIMILARITY = ("--disable", "classification,recognition")


def folded(name):
    return name.lower().replace(" ", "")


def known_families(data):
    """data/known_families.tsv: folded family or alias -> (family, weights, look-alikes [(family, why)])."""
    table = {}
    with open(os.path.join(data, "known_families.tsv"), encoding="utf-8") as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            fields = line.rstrip("\n").split("\t")
            row = (fields[0], [int(w) for w in fields[3].split(",")], list(zip(fields[6::2], fields[7::2])))
            for name in [fields[0]] + [a.strip() for a in fields[1].split(",") if a.strip()]:
                table[folded(name)] = row
    return table


def nearest_weight(weights, wanted):
    """The weight a family draws WANTED with: the nearest, a tie to the lighter up to 500."""
    return min(weights, key=lambda w: (abs(w - wanted), w > wanted if wanted <= 500 else w < wanted))


class KnownFontsCliTest(ShippedDataTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        r = cls.run_tool(*ONLY_SIMILARITY, "index")
        assert r.returncode == 0, r.stderr
        fonts = json.loads(cls.run_tool(*ONLY_SIMILARITY, "fonts", "--all", "--json").stdout)["fonts"]
        cls.installed_families = {folded(f["family"]) for f in fonts}
        cls.installed_names = {f["name"] for f in fonts}
        cls.known = json.loads(cls.run_tool(*ONLY_SIMILARITY, "fonts", "--known", "--json").stdout)["fonts"]
        cls.table = known_families(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "data"))

    def substitute(self, *args, status=0):
        r = self.run_tool(*ONLY_SIMILARITY, "substitute", *args, "--json")
        self.assertEqual(r.returncode, status, r.stderr)
        return json.loads(r.stdout)["substitutions"], r.stderr

    def test_lists_drawn_here_are_kept(self):
        (later, first), _ = self.substitute("'Zzyzx Grotesk', 'DejaVu Serif', serif", "dejavu sans", "--weight", "700")
        self.assertEqual((later["action"], later["kind"], later["family"]), ("keep", "fallback", "DejaVu Serif"))
        self.assertIn("DejaVu Serif", later["why"])
        self.assertEqual((first["action"], first["kind"], first["family"]), ("keep", "installed", "DejaVu Sans"))
        for answer in (later, first):
            self.assertEqual((answer["weight"], answer["italic"]), (700, False), answer)
            self.assertIn(answer["face"], self.installed_names)
        # A generic family always draws, so a family after it is never reached.
        (stopped,), said = self.substitute("'Zzyzx Grotesk', sans-serif, 'DejaVu Serif'", status=1)
        self.assertEqual((stopped["action"], stopped["kind"], stopped["face"]), ("none", "unknown", ""))
        self.assertIn("Zzyzx Grotesk is not installed, and Fontrix knows no font of that name", said)

    def test_well_known_families_are_drawn_by_or_replaced_with_their_look_alikes(self):
        for name, weight, italic in (("Helvetica", 700, False), ("Times New Roman", 400, True),
                                     ("Courier New", 400, False), ("Arial", 700, True), ("Helvetica Neue", 300, False)):
            with self.subTest(name):
                family, weights, look_alikes = self.table[folded(name)]
                if folded(family) in self.installed_families:
                    continue  # the machine has the family itself: kept, as any installed one
                allowed = {folded(f): why for f, why in look_alikes}
                self.assertTrue(set(allowed) & self.installed_families,
                                "scripts/setup.sh installs a look-alike of %s" % name)
                (answer,), _ = self.substitute(name, "--weight", str(weight), *(["--italic"] if italic else []))
                self.assertIn(folded(answer["family"]), allowed, answer)
                if answer["action"] == "keep":
                    self.assertEqual((answer["kind"], allowed[folded(answer["family"])]), ("clone", "clone"), answer)
                else:
                    self.assertEqual((answer["action"], answer["kind"]),
                                     ("replace", allowed[folded(answer["family"])]), answer)
                self.assertLessEqual(abs(answer["weight"] - nearest_weight(weights, weight)), 100, answer)
                self.assertEqual(answer["italic"], italic, answer)

    def test_a_light_face_of_a_family_without_installed_look_alikes_stays_light(self):
        (answer,), _ = self.substitute("'Gotham Light', sans-serif")
        self.assertEqual(answer["action"], "replace", answer)
        self.assertLessEqual(answer["weight"], 400, answer)
        self.assertFalse(answer["italic"])
        if self.known:
            self.assertIn(answer["kind"], ("look-alike", "similar"), answer)

    def test_bad_input_is_a_usage_error(self):
        for args in (["substitute"], ["substitute", "Arial", "--weight", "0"],
                     ["substitute", "Arial", "--weight", "bold"],
                     ["substitute", "'Open Sans"], ["substitute", "Arial,,serif"], ["similar", "Arial", "--italic"],
                     ["fonts", "--known", "--all"]):
            with self.subTest(args=args):
                r = self.run_tool(*args)
                self.assertEqual(r.returncode, 2, r.stderr)
                self.assertIn("usage: fontrix", r.stderr)
                self.assertNotIn("Traceback", r.stderr)

    def test_similar_answers_a_well_known_family_through_its_look_alikes(self):
        family, _, look_alikes = self.table[folded("Helvetica Neue")]
        if folded(family) in self.installed_families:
            self.skipTest("Helvetica Neue is installed here")
        r = self.run_tool(*ONLY_SIMILARITY, "similar", "Helvetica Neue Bold Italic", "--json", "--limit", "10")
        self.assertEqual(r.returncode, 0, r.stderr)
        answer = json.loads(r.stdout)
        self.assertEqual((answer["query"], answer["query_style"], answer["query_installed"], answer["query_known"]),
                         ("Helvetica Neue", "Bold Italic", False, "family"))
        self.assertIn("Helvetica Neue is not an open font: answering through its look-alikes", r.stderr)
        self.assertEqual([(a["family"], a["why"]) for a in answer["look_alikes"]], look_alikes)
        installed = [a for a in answer["look_alikes"] if a["installed"]]
        self.assertTrue(installed, "scripts/setup.sh installs Nimbus Sans and TeX Gyre Heros")
        # The installed look-alikes first, best first, at their bold italic faces.
        self.assertEqual([x["name"] for x in answer["results"][:len(installed)]], [a["face"] for a in installed])
        for x in answer["results"][:len(installed)]:
            self.assertTrue(x["slant"] > 0 and x["weight"] >= 180, x)  # fontconfig's semibold and up
            self.assertIn(x["look_alike"], ("clone", "revival", "look-alike"))
        self.assertTrue({x["name"] for x in answer["results"]} <= self.installed_names)

    def test_generic_families_are_answered_by_fontconfigs_fonts(self):
        # Not by a known face whose data names its family "sans", as a pattern reads "sans-serif".
        for name in ("sans-serif:weight=80:slant=100", "serif", "monospace:bold"):
            r = self.run_tool(*ONLY_SIMILARITY, "similar", name, "--json", "--limit", "1")
            self.assertEqual(r.returncode, 0, r.stderr)
            answer = json.loads(r.stdout)
            self.assertTrue(answer["query_installed"], answer)
            self.assertIn(answer["query"], self.installed_names)

    def a_known_face_not_installed(self):
        if not self.known:
            self.skipTest("the module lists no known faces (fontrix fonts --known): the known faces' data "
                          "(NQ_known_faces.tsv) is not in this data folder")
        for face in self.known:
            if (not face["installed"] and folded(face["family"]) not in self.installed_families
                    and face["family"].replace(" ", "").isalpha() and face["slant"] == 0):
                return face
        self.skipTest("every known family is installed here")

    def test_similar_answers_a_known_open_face_that_is_not_installed(self):
        face = self.a_known_face_not_installed()
        r = self.run_tool(*ONLY_SIMILARITY, "similar", face["name"], "--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        answer = json.loads(r.stdout)
        self.assertEqual((answer["query"], answer["query_installed"], answer["query_known"], answer["query_source"]),
                         (face["name"], False, "face", face["source"]))
        self.assertIn("is not installed (open font, %s" % face["source"], r.stderr)
        names = [x["name"] for x in answer["results"]]
        scores = [x["score"] for x in answer["results"]]
        self.assertTrue(set(names) <= self.installed_names)
        self.assertEqual(scores, sorted(scores, reverse=True))

    def test_substitute_replaces_a_known_open_family_saying_where_to_get_it(self):
        face = self.a_known_face_not_installed()
        r = self.run_tool(*ONLY_SIMILARITY, "substitute", "'%s', serif" % face["family"], "--json")
        (answer,) = json.loads(r.stdout)["substitutions"]
        self.assertEqual(answer["kind"], "known-face", answer)
        self.assertIn(face["source"], answer["why"])
        if answer["action"] == "replace":
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertIn(folded(answer["family"]), self.installed_families)
        else:  # the data holds no vector of any face of the family: said, and not answered
            self.assertEqual((answer["action"], r.returncode), ("none", 1))
            self.assertIn(face["source"], r.stderr)
        # A name a letter off is not found, but the family is among the close names.
        typo = face["family"][:-1] + ("x" if face["family"][-1] != "x" else "y")
        r = self.run_tool(*ONLY_SIMILARITY, "substitute", typo)
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertIn(face["family"], r.stderr)


if __name__ == "__main__":
    main()
