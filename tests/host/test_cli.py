#!/usr/bin/python3
"""fontrix as people run it: usage errors (exit 2), --help and --version, modules that cannot be
used (exit 1, one line), the whole lifecycle with a stand-in module that publishes the
progress suite, and specimens drawn through the host's font engine.

Usage: test_cli.py PATH/TO/fontrix PATH/TO/libno_entry_module.so PATH/TO/libfake_module.so
"""
import json
import os
import re
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest

FONTRIX = NO_ENTRY = FAKE = None


class CliTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.env = {k: v for k, v in os.environ.items() if not k.startswith(("FONTRIX_", "FAKE_MODULE_"))}
        self.env["FONTRIX_CACHE_DIR"] = os.path.join(self.tmp.name, "cache")

    def tearDown(self):
        self.tmp.cleanup()

    def run_tool(self, *args, **env):
        return subprocess.run([FONTRIX, *args], capture_output=True, text=True, timeout=120,
                              env={**self.env, **env})

    def test_usage_errors_exit_2_with_the_usage_line(self):
        cases = {
            "no command": [],
            "unknown command": ["frobnicate"],
            "later command": ["features", "DejaVuSans"],
            "unknown option": ["--frob", "fonts"],
            "missing value": ["fonts", "--limit"],
            "zero limit": ["fonts", "--limit", "0"],
            "bad limit": ["--limit=ten", "fonts"],
            "unknown service": ["--disable", "similarity,speed", "fonts"],
            "extra argument": ["fonts", "extra"],
            "flag with a value": ["--json=yes", "fonts"],
            "specimen without -o": ["specimen", "DejaVuSans", "Abc"],
            "specimen without text": ["specimen", "DejaVuSans", "-o", "a.png"],
            "-o for fonts": ["fonts", "-o", "a.png"],
            "zero size": ["specimen", "DejaVuSans", "Abc", "-o", "a.png", "--size", "0"],
            "size not a number": ["specimen", "DejaVuSans", "Abc", "-o", "a.png", "--size=big"],
        }
        for what, args in cases.items():
            r = self.run_tool("--module", FAKE, *args)
            self.assertEqual(r.returncode, 2, what + ": " + r.stderr)
            lines = r.stderr.splitlines()
            self.assertEqual(len(lines), 2, what + ": " + r.stderr)
            self.assertTrue(lines[0].startswith("fontrix: "), what)
            self.assertTrue(lines[1].startswith("usage: fontrix"), what)
            self.assertEqual(r.stdout, "", what)

    def test_help_and_version_need_no_module(self):
        r = self.run_tool("--version", "--module", "/nonexistent.so")
        self.assertEqual((r.returncode, r.stdout, r.stderr), (0, "fontrix 0.1.0\n", ""))
        for args in (["--help"], ["fonts", "--help"], ["-h"]):
            r = self.run_tool(*args)
            self.assertEqual(r.returncode, 0, args)
            self.assertTrue(r.stdout.startswith("usage: fontrix"), args)
            self.assertIn("  fonts ", r.stdout)
            self.assertIn("  specimen NAME TEXT -o FILE [--size N]", r.stdout)
            self.assertIn("--disable SERVICE", r.stdout)

    def assert_one_line_failure(self, r, start):
        self.assertEqual(r.returncode, 1, r.stderr)
        self.assertEqual(r.stdout, "")
        self.assertEqual(len(r.stderr.splitlines()), 1, r.stderr)
        self.assertTrue(r.stderr.startswith(start), r.stderr)

    def test_modules_that_cannot_be_used(self):
        self.assert_one_line_failure(self.run_tool("--module", "/nonexistent.so", "fonts"),
                                     "fontrix: cannot load the Fontrix module at /nonexistent.so: ")
        self.assert_one_line_failure(self.run_tool("fonts", FONTRIX_MODULE="/nonexistent-env.so"),
                                     "fontrix: cannot load the Fontrix module at /nonexistent-env.so: ")
        self.assert_one_line_failure(self.run_tool("--module", NO_ENTRY, "fonts"),
                                     "fontrix: the Fontrix module at %s has no entry point main" % NO_ENTRY)
        self.assert_one_line_failure(self.run_tool("--module", FAKE, "fonts", FAKE_MODULE_FAIL="startup"),
                                     "fontrix: the Fontrix module failed to start (error 'UIN?')")

    def test_fonts_as_table_and_json(self):
        r = self.run_tool("fonts", "--module", FAKE)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr, "")
        lines = r.stdout.splitlines()
        self.assertEqual(lines[0].split(), ["UNIQUE_NAME", "FAMILY", "STYLE"])
        # Columns are aligned: the family starts at the same place on every line.
        family_column = lines[0].index("FAMILY")
        for line in lines[1:]:
            self.assertEqual(line[family_column - 2:family_column], "  ", line)
            self.assertNotEqual(line[family_column], " ", line)

        r = self.run_tool("--json", "fonts", "--module=" + FAKE)
        self.assertEqual(r.returncode, 0, r.stderr)
        fonts = json.loads(r.stdout)["fonts"]
        self.assertEqual([f["name"] for f in fonts], [line.split()[0] for line in lines[1:]])
        by_name = {f["name"]: f for f in fonts}
        self.assertEqual(len(by_name), len(fonts), "the stand-in lists no duplicate names")
        self.assertEqual(by_name["DejaVuSans"]["family"], "DejaVu Sans")
        self.assertEqual(by_name["DejaVuSans"]["style"], "Book")
        for f in fonts:
            self.assertEqual(sorted(f), ["family", "file", "name", "style"])
            self.assertTrue(os.path.isfile(f["file"]), f)

        r = self.run_tool("--json", "--limit", "2", "fonts", "--module", FAKE)
        self.assertEqual(json.loads(r.stdout)["fonts"], fonts[:2])

    def test_lifecycle_folders_and_switches_reach_the_module(self):
        report = os.path.join(self.tmp.name, "report.txt")
        cache = os.path.join(self.tmp.name, "my cache")
        r = self.run_tool("fonts", "--module", FAKE, "--data-dir", self.tmp.name, "--cache-dir", cache,
                          "--disable", "similarity", "--disable=recognition", "--debug-log",
                          FAKE_MODULE_REPORT=report)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(report) as f:
            lines = f.read().splitlines()
        self.assertEqual([l for l in lines if l.startswith("message ")], [
            "message KP Interface/Startup",
            "message QV Application Started Notifier",
            "message QV Font List Changed Notifier",
            "message QV Application Shutdown Notifier",
            "message KP Interface/Shutdown",
        ])
        self.assertIn("data " + self.tmp.name, lines)
        self.assertIn("cache " + cache, lines)
        self.assertIn("switch Text/FontClassification 1", lines)
        self.assertIn("switch Text/FontSimilarity 0", lines)
        self.assertIn("switch TextDebug/FontRecognition 0", lines)
        self.assertIn("switch TextDebug/DumpDebugInfo 1", lines)

        # The environment disables services too.
        self.run_tool("fonts", "--module", FAKE, FAKE_MODULE_REPORT=report, FONTRIX_DISABLE="classification")
        with open(report) as f:
            lines = f.read().splitlines()
        self.assertIn("switch Text/FontClassification 0", lines)
        self.assertIn("switch Text/FontSimilarity 1", lines)
        self.assertIn("cache " + self.env["FONTRIX_CACHE_DIR"], lines)

    def test_caches_of_another_module_or_other_data_are_forgotten(self):
        data, cache = os.path.join(self.tmp.name, "data"), os.path.join(self.tmp.name, "cache")
        os.makedirs(data)
        os.makedirs(cache)
        caches = ["FontFeatureCache.json", "NQ_sim_fea_sys.cch", "NQ_sim_meta_sys.cch"]

        def fill():
            for name in caches + ["unrelated.txt"]:
                with open(os.path.join(cache, name), "w") as f:
                    f.write("old")

        def run():
            r = self.run_tool("fonts", "--module", FAKE, "--data-dir", data, "--cache-dir", cache)
            self.assertEqual(r.returncode, 0, r.stderr)
            return sorted(os.listdir(cache))

        fill()
        self.assertNotIn("FontFeatureCache.json", run())  # no stamp yet: made by some other build
        fill()
        self.assertIn("FontFeatureCache.json", run())  # same module, same data: kept
        with open(os.path.join(data, "NQ_sim_model.dnm"), "w") as f:
            f.write("a new network")
        left = run()
        self.assertTrue(set(caches).isdisjoint(left))
        self.assertIn("unrelated.txt", left)  # only the module's own caches go

    def test_ctrl_c_while_waiting_shuts_the_module_down_in_order(self):
        report = os.path.join(self.tmp.name, "report.txt")
        tool = subprocess.Popen([FONTRIX, "fonts", "--module", FAKE], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True,
                                env={**self.env, "FAKE_MODULE_STALL": "1", "FAKE_MODULE_REPORT": report})
        for _ in range(600):  # the tool handles Ctrl-C once the application has started
            if os.path.exists(report + ".started"):
                break
            time.sleep(0.05)
        tool.send_signal(signal.SIGINT)
        out, err = tool.communicate(timeout=30)
        self.assertEqual((tool.returncode, out, err), (130, "", "fontrix: interrupted\n"))
        with open(report) as f:
            lines = f.read().splitlines()
        messages = [l for l in lines if l.startswith("message ")]
        self.assertEqual(messages[-2:], ["message QV Application Shutdown Notifier", "message KP Interface/Shutdown"])

    def test_specimen_writes_the_ink_box_as_png(self):
        out = os.path.join(self.tmp.name, "specimen.png")
        r = self.run_tool("--json", "specimen", "DejaVuSans", "Hamburg", "-o", out, "--size", "50",
                          "--module", FAKE)
        self.assertEqual((r.returncode, r.stderr), (0, ""))
        info = json.loads(r.stdout)
        box = info["box"]
        self.assertEqual((info["font"], info["size"]), ("DejaVuSans", 50))
        self.assertEqual((info["width"], info["height"]), (box["right"] - box["left"], box["bottom"] - box["top"]))
        self.assertLess(box["top"], -30)  # cap height above the baseline, y down
        self.assertGreater(box["bottom"], 5)  # the descender of the g
        with open(out, "rb") as f:
            png = f.read()
        self.assertEqual(png[:8], b"\x89PNG\r\n\x1a\n")
        self.assertEqual(struct.unpack(">IIBB", png[16:26]), (info["width"], info["height"], 8, 0))  # 8-bit grey

        r = self.run_tool("specimen", "DejaVuSans", "Hamburg", "-o", out, "--module", FAKE)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertRegex(r.stdout, r"^%s: \d+ x \d+ pixels, DejaVuSans at 200 pixels to the em, ink box left "
                         r"-?\d+ top -\d+ right \d+ bottom \d+ " % re.escape(out))

    def test_specimen_of_an_unknown_font_names_close_ones(self):
        out = os.path.join(self.tmp.name, "specimen.png")
        r = self.run_tool("specimen", "dejavusans-bol", "Abc", "-o", out, "--module", FAKE)
        self.assert_one_line_failure(
            r, "fontrix: no installed font is named 'dejavusans-bol'; close names: DejaVuSans-Bold, ")
        self.assertFalse(os.path.exists(out))
        r = self.run_tool("specimen", "DejaVuSans", "   ", "-o", out, "--module", FAKE)
        self.assert_one_line_failure(r, "fontrix: cannot draw the specimen of DejaVuSans: the text has no ink")
        r = self.run_tool("specimen", "DejaVuSans", "Abc", "-o", "/nonexistent/dir/a.png", "--module", FAKE)
        self.assert_one_line_failure(r, "fontrix: cannot draw the specimen of DejaVuSans: cannot write the PNG file "
                                        "/nonexistent/dir/a.png: No such file or directory")


if __name__ == "__main__":
    FONTRIX, NO_ENTRY, FAKE = (os.path.abspath(p) for p in sys.argv[1:4])
    del sys.argv[1:4]
    unittest.main()
