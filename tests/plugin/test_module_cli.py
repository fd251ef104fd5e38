#!/usr/bin/python3
"""The real fontrix tool driving the real module on this machine's fonts: start, list the
fonts, shut down cleanly, with every service and with each one switched off; the debug logs
appear only when asked for.

Usage: test_module_cli.py PATH/TO/fontrix PATH/TO/libfontrix.so
"""
import json
import os
import struct
import subprocess
import sys
import tempfile
import unittest

FONTRIX = MODULE = None
SERVICES = ("classification", "similarity", "recognition")
LOGS = {"classification": "FontFeatureLogs.txt", "similarity": "NQ_sim_debug_info.txt",
        "recognition": "NQ_rec_debug_info.txt"}


class ModuleCliTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.cache = os.path.join(self.tmp.name, "cache")
        self.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}

    def tearDown(self):
        self.tmp.cleanup()

    def fonts(self, *args):
        r = subprocess.run([FONTRIX, "--module", MODULE, "--cache-dir", self.cache, *args, "fonts", "--json"],
                           capture_output=True, text=True, timeout=120, env=self.env)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr, "", "a clean run shows no alert")
        return [f["name"] for f in json.loads(r.stdout)["fonts"]]

    def test_lists_installed_fonts_with_and_without_each_service(self):
        everything = self.fonts()
        self.assertIn("DejaVuSans", everything)
        self.assertEqual(len(everything), len(set(everything)), "one face per unique name")
        for service in SERVICES:
            self.assertEqual(self.fonts("--disable", service), everything, service)
        self.assertEqual(self.fonts("--disable", ",".join(SERVICES)), everything)
        self.assertFalse(any(os.path.exists(os.path.join(self.cache, log)) for log in LOGS.values()),
                         "no debug log without --debug-log")

    def classes(self, *args):
        return subprocess.run([FONTRIX, "--module", MODULE, "--cache-dir", self.cache, "classes", *args],
                              capture_output=True, text=True, timeout=300, env=self.env)

    def test_without_a_cache_folder_the_module_answers_and_writes_nowhere_else(self):
        blocker = os.path.join(self.tmp.name, "a-file")
        with open(blocker, "w") as f:
            f.write("not a folder")
        r = subprocess.run([FONTRIX, "--module", MODULE, "--cache-dir", os.path.join(blocker, "cache"), "--disable",
                            "recognition", "similar", "DejaVuSans", "--limit", "2"],
                           capture_output=True, text=True, timeout=600, env=self.env, cwd=self.tmp.name)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(len(r.stdout.splitlines()), 2)
        # Said once, by the tool; with many fonts installed, a first run also says what it waits for.
        said = [line for line in r.stderr.splitlines() if "(once: later runs answer at once)" not in line]
        self.assertEqual(len(said), 1, r.stderr)
        self.assertIn("cannot make the cache folder", said[0])
        self.assertEqual(sorted(os.listdir(self.tmp.name)), ["a-file"])  # no lock file in the working folder

    def test_classes_answer_through_the_feature_suite(self):
        r = self.classes("--json")
        self.assertEqual(r.returncode, 0, r.stderr)
        fonts = {f["name"]: f for f in json.loads(r.stdout)["fonts"]}
        self.assertTrue(os.path.exists(os.path.join(self.cache, "FontFeatureCache.json")))
        # The trained rows on fonts whose design is beyond doubt.
        self.assertIn("fs_sans_serif", fonts["DejaVuSans"]["classes"])
        self.assertIn("fs_serif", fonts["DejaVuSerif"]["classes"])
        self.assertIn("fs_monospace", fonts["DejaVuSansMono"]["classes"])
        self.assertNotIn("fs_serif", fonts["DejaVuSans"]["classes"])
        self.assertEqual(fonts["DejaVuSans"]["family"], "DejaVu Sans")

        # All of the classes and none of the --not ones; label strings and short forms alike.
        def names(r):
            return {line.split("\t")[0] for line in r.stdout.splitlines()}
        monospace = names(self.classes("monospace"))
        self.assertIn("DejaVuSansMono", monospace)
        plain = names(self.classes("fs_monospace", "--not", "sans_serif"))
        self.assertTrue(plain < monospace)  # DejaVu Sans Mono is left out
        self.assertEqual(plain, {n for n in monospace if "fs_sans_serif" not in fonts[n]["classes"]})

        # One row per face the module uses, in both lists.
        listed = [line.split("\t")[0] for line in self.classes().stdout.splitlines()]
        self.assertEqual(len(listed), len(set(listed)))
        self.assertEqual(sorted(listed), sorted(fonts))

        # A contact sheet of a class: a PNG with a row of label and sample for each font listed.
        sheet = os.path.join(self.cache, "monospace.png")
        r = self.classes("monospace", "--limit", "3", "--sheet", sheet)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(sheet, "rb") as f:
            png = f.read()
        self.assertEqual(png[:8], b"\x89PNG\r\n\x1a\n")
        height = struct.unpack(">I", png[20:24])[0]
        self.assertGreater(height, 3 * 48)  # three rows of 48-pixel samples, and their labels

        # An empty answer is said, not left to look like a failure to answer.
        r = self.classes("serif", "--not", "serif")
        self.assertEqual((r.returncode, r.stdout, r.stderr),
                         (0, "", "fontrix: no installed font is classed serif and not serif\n"))

        r = self.classes("gothic")
        self.assertEqual(r.returncode, 2)
        self.assertIn("no style class is named 'gothic'; the classes are blackletter, decorative", r.stderr)

    def test_debug_logs_follow_the_services_that_ran(self):
        # index runs every service that is on; a question runs only the ones it asks.
        r = subprocess.run([FONTRIX, "--module", MODULE, "--cache-dir", self.cache, "--debug-log", "--disable",
                            "similarity", "index"], capture_output=True, text=True, timeout=300, env=self.env)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(os.path.join(self.cache, LOGS["recognition"])) as f:
            self.assertIn("Loading Recognition Engine Starts: time : ", f.read())
        with open(os.path.join(self.cache, LOGS["classification"])) as f:
            self.assertIn("Feature Cache Terminating", f.read())
        self.assertFalse(os.path.exists(os.path.join(self.cache, LOGS["similarity"])))


if __name__ == "__main__":
    MODULE = os.path.abspath(sys.argv.pop(2))
    FONTRIX = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)  # the log says why a test was skipped
