#!/usr/bin/python3
"""fontrix as people run it: usage errors (exit 2), --help and --version, modules that cannot be
used (exit 1, one line), the whole lifecycle with a stand-in module that publishes the
progress suite, and specimens drawn through the host's font engine.

Usage: test_cli.py PATH/TO/fontrix PATH/TO/libno_entry_module.so PATH/TO/libfake_module.so
"""
import json
import os
import shutil
import pty
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
            "extra argument": ["index", "extra"],
            "two patterns": ["fonts", "Sans", "Serif"],
            "unknown format field": ["fonts", "--format", "%{fullname}"],
            "format with json": ["fonts", "--format", "%{name}", "--json"],
            "--class for recognize": ["recognize", "a.png", "--class", "serif"],
            "--class unknown to similar": ["similar", "DejaVuSans", "--class", "gothic"],
            "--other-families for fonts": ["fonts", "--other-families"],
            "--other-families with a value": ["similar", "DejaVuSans", "--other-families=yes"],
            "unknown class": ["fonts", "--class", "gothic"],
            "--all for classes": ["classes", "--all"],
            "--style for fonts": ["fonts", "-s", "bold"],
            "flag with a value": ["--json=yes", "fonts"],
            "specimen without -o": ["specimen", "DejaVuSans", "Abc"],
            "specimen without text": ["specimen", "DejaVuSans", "-o", "a.png"],
            "-o for fonts": ["fonts", "-o", "a.png"],
            "zero size": ["specimen", "DejaVuSans", "Abc", "-o", "a.png", "--size", "0"],
            "size not a number": ["specimen", "DejaVuSans", "Abc", "-o", "a.png", "--size=big"],
        }
        r = self.run_tool("--module", FAKE, "simlar", "DejaVuSans")
        self.assertEqual((r.returncode, r.stderr.splitlines()[0]),
                         (2, "fontrix: unknown command 'simlar' (did you mean 'similar'?)"))
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
            self.assertIn("  similar NAME [--other-families] [--class CLASS ...] [--sheet FILE]", r.stdout)
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
        # Piped: tab-separated columns and no header, by family, then weight, width and slant.
        rows = [line.split("\t") for line in r.stdout.splitlines()]
        self.assertTrue(rows and all(len(row) == 3 for row in rows), r.stdout)
        families = [row[1].lower() for row in rows]
        self.assertEqual(families, sorted(families))
        self.assertLess([row[0] for row in rows].index("DejaVuSans"), [row[0] for row in rows].index("DejaVuSans-Bold"))
        # On a terminal a header line comes first.
        leader, follower = pty.openpty()
        with subprocess.Popen([FONTRIX, "fonts", "--module", FAKE], stdout=follower, stderr=subprocess.PIPE,
                              env=self.env):
            os.close(follower)
            seen = b""
            while True:
                try:
                    chunk = os.read(leader, 65536)
                except OSError:  # the terminal closes with the tool
                    break
                if not chunk:
                    break
                seen += chunk
        os.close(leader)
        self.assertEqual(seen.decode().splitlines()[0], "NAME\tFAMILY\tSTYLE")
        lines = ["header"] + r.stdout.splitlines()

        r = self.run_tool("--json", "fonts", "--module=" + FAKE)
        self.assertEqual(r.returncode, 0, r.stderr)
        fonts = json.loads(r.stdout)["fonts"]
        self.assertEqual([f["name"] for f in fonts], [line.split("\t")[0] for line in lines[1:]])
        by_name = {f["name"]: f for f in fonts}
        self.assertEqual(len(by_name), len(fonts), "the stand-in lists no duplicate names")
        self.assertEqual(by_name["DejaVuSans"]["family"], "DejaVu Sans")
        self.assertEqual(by_name["DejaVuSans"]["style"], "Book")
        for f in fonts:
            self.assertEqual(sorted(f), ["family", "file", "index", "name", "slant", "style", "weight", "width"])
            self.assertTrue(os.path.isfile(f["file"]), f)

        r = self.run_tool("--json", "--limit", "2", "fonts", "--module", FAKE)
        self.assertEqual(json.loads(r.stdout)["fonts"], fonts[:2])

    def resolve(self, *name_and_options):
        """The face `specimen` draws for what a user typed, and what it said on stderr."""
        out = os.path.join(self.tmp.name, "resolved.png")
        r = self.run_tool("--module", FAKE, "--json", "specimen", *name_and_options, "Abc", "-o", out)
        return (json.loads(r.stdout)["font"] if r.returncode == 0 else None), r.stderr

    def listing(self):
        """file:index -> unique name, of every face the host lists (copies carry the kept face's name)."""
        r = self.run_tool("--module", FAKE, "fonts", "--all", "--format", "%{file}:%{index}\\t%{name}\\t%{status}\\n")
        self.assertEqual(r.returncode, 0, r.stderr)
        return {line.split("\t")[0]: line.split("\t")[1:] for line in r.stdout.splitlines()}

    def fc_match(self, pattern):
        return subprocess.run(["fc-match", "-f", "%{file}:%{index}", pattern], capture_output=True, text=True,
                              check=True).stdout

    def test_names_people_type_resolve_as_fc_match_does(self):
        bold = self.fc_match("DejaVu Sans:bold")
        exact = {("DejaVuSans",): "DejaVuSans", ("dejavusans-bold",): "DejaVuSans-Bold",
                 ("DejaVu Sans Bold",): "DejaVuSans-Bold",
                 ("dejavu sans", "-s", "Bold Oblique"): "DejaVuSans-BoldOblique",
                 ("DejaVuSans", "--style=bold"): "DejaVuSans-Bold", (bold.rsplit(":", 1)[0],): "DejaVuSans-Bold"}
        for typed, face in exact.items():
            self.assertEqual(self.resolve(*typed), (face, ""), typed)
        # A choice among several faces, or a substitute: fc-match's face, said on stderr.
        listing = self.listing()
        for typed in ("DejaVu Sans", "DejaVu Sans:bold", "Liberation Mono", "Nimbus Roman", "Inter", "Helvetica",
                      "serif"):
            face, said = self.resolve(typed)
            self.assertEqual(face, listing[self.fc_match(typed)][0], typed)
            self.assertTrue(said.startswith("fontrix: ") and face in said and said.count("\n") == 1, said)
        # Unknown names fail with close names, a family's regular face among them.
        face, said = self.resolve("DejaVu Sanz")
        self.assertIsNone(face)
        self.assertTrue(said.startswith("fontrix: no installed font is named 'DejaVu Sanz'; close names: DejaVuSans"),
                        said)
        self.assertEqual(self.resolve("NoSuchFamilyAnywhere")[0], None)
        self.assertEqual(self.resolve("DejaVuSans-Bol")[0], None)  # not a family and a size

    def test_every_face_listed_once_and_copies_say_why(self):
        r = self.run_tool("--module", FAKE, "--json", "fonts")
        fonts = json.loads(r.stdout)["fonts"]
        names = [f["name"] for f in fonts]
        self.assertEqual(len(names), len(set(names)))
        self.assertIn("Inter-Regular", names)  # a variable font's default instance, under its own name
        listing = self.listing()
        self.assertEqual(sorted(n for n, status in listing.values() if status == "used"), sorted(names))
        # URW's faces come as OpenType, Type 1 and PFB files: the OpenType one is used.
        for where, (name, status) in listing.items():
            if name == "NimbusRoman-Regular":
                self.assertEqual(status, "used" if where.endswith(".otf:0") else
                                 "a copy of the face in /usr/share/fonts/opentype/urw-base35/NimbusRoman-Regular.otf")
        # Inter's file with a slant axis names its italic instances as the italic file does, and
        # draws them as it does, a unit apart here and there: copies, not faces under derived names.
        inter = {where: status for where, (name, status) in listing.items() if "/inter-vf/Inter" in where}
        self.assertTrue(inter, "fonts-inter-variable is installed by scripts/setup.sh --tests")
        used = [n for n, status in listing.values() if status == "used"]
        self.assertEqual([n for n in used if n.endswith(".var")], [])
        self.assertIn("a copy of the face in /usr/share/fonts/truetype/inter-vf/Inter-italic.var.ttf", inter.values())
        # Faces whose letter codes hold symbols (Greek letters, dingbats) draw no text: none is used.
        symbols = {where: status for where, (name, status) in listing.items()
                   if name in ("StandardSymbolsPS", "D050000L") and where.endswith(".otf:0")}
        self.assertEqual(len(symbols), 2, "fonts-urw-base35 is installed by scripts/setup.sh --tests")
        for status in symbols.values():
            self.assertEqual(status, "no Latin letters and digits, or symbols in their place "
                                     "(a symbol, dingbat or non-Latin font)")

    def test_lists_filter_format_and_limits(self):
        def names(*args):
            r = self.run_tool("--module", FAKE, "fonts", *args, "--format", "%{name}\\n")
            self.assertEqual(r.returncode, 0, r.stderr)
            return r.stdout.split()
        every = names()
        bold = names(":weight=bold")
        self.assertTrue(bold and set(bold) < set(every) and "DejaVuSans-Bold" in bold and "DejaVuSans" not in bold)
        self.assertEqual(set(names("dejavu sans mono")), {n for n in every if n.startswith("DejaVuSansMono")})
        r = self.run_tool("--module", FAKE, "fonts", "DejaVu Serif:bold", "--format", "%{family}|%{weight}|%{slant};")
        self.assertEqual(set(r.stdout.rstrip(";").split(";")), {"DejaVu Serif|200|0", "DejaVu Serif|200|100"})
        r = self.run_tool("--module", FAKE, "similar", "DejaVuSans", "--limit", "100")
        self.assertEqual(r.stderr.splitlines()[0],
                         "fontrix: similar answers at most 80 fonts, so --limit 100 shows at most 80")

    def test_what_a_service_reports_is_said_and_fails_the_commands_that_need_it(self):
        r = self.run_tool("--module", FAKE, "index", FAKE_MODULE_SAY="1:the cache file X was damaged; it is rebuilt")
        self.assertEqual((r.returncode, r.stderr.splitlines()[0]),
                         (0, "fontrix: warning: the cache file X was damaged; it is rebuilt"))
        failure = "2:the similarity model /d/NQ_sim_model.dnm cannot be used: it ends inside a layer"
        for args, status in ((["similar", "DejaVuSans"], 1), (["index"], 1)):
            r = self.run_tool("--module", FAKE, *args, FAKE_MODULE_SAY=failure)
            self.assertEqual(r.returncode, status, args)
            self.assertEqual(r.stderr.splitlines()[0], "fontrix: " + failure[2:], args)
        # A command starts only the services it asks: listing fonts never meets the broken model.
        r = self.run_tool("--module", FAKE, "fonts", FAKE_MODULE_SAY=failure)
        self.assertEqual((r.returncode, r.stderr), (0, ""))
        # A service switched off reports nothing.
        r = self.run_tool("--module", FAKE, "--disable", "similarity", "index", FAKE_MODULE_SAY=failure)
        self.assertEqual((r.returncode, r.stderr.count("cannot be used")), (0, 0), r.stderr)

    def test_lifecycle_folders_and_switches_reach_the_module(self):
        report = os.path.join(self.tmp.name, "report.txt")
        cache = os.path.join(self.tmp.name, "my cache")
        r = self.run_tool("index", "--module", FAKE, "--data-dir", self.tmp.name, "--cache-dir", cache,
                          "--disable", "similarity", "--disable=recognition", "--debug-log",
                          FAKE_MODULE_REPORT=report)
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(report) as f:
            lines = f.read().splitlines()
        self.assertEqual([line for line in lines if line.startswith("message ")], [
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
        self.run_tool("index", "--module", FAKE, FAKE_MODULE_REPORT=report, FONTRIX_DISABLE="classification")
        with open(report) as f:
            lines = f.read().splitlines()
        self.assertIn("switch Text/FontClassification 0", lines)
        self.assertIn("switch Text/FontSimilarity 1", lines)
        self.assertIn("cache " + self.env["FONTRIX_CACHE_DIR"], lines)

        # A question starts only the services it asks.
        for args, on in ((["fonts"], set()), (["similar", "DejaVuSans"], {"Text/FontSimilarity"}),
                         (["recognize", "picture.png"], {"Text/FontSimilarity", "TextDebug/FontRecognition"}),
                         (["classes"], {"Text/FontClassification", "Text/FontSimilarity"})):
            self.run_tool(*args, "--module", FAKE, FAKE_MODULE_REPORT=report)
            with open(report) as f:
                switches = [line.split() for line in f.read().splitlines() if line.startswith("switch ")]
            self.assertEqual({key for _, key, value in switches if value == "1" and "Font" in key}, on, args)

    def test_caches_of_another_module_or_other_data_are_forgotten(self):
        data, cache = os.path.join(self.tmp.name, "data"), os.path.join(self.tmp.name, "cache")
        os.makedirs(data)
        os.makedirs(cache)
        caches = ["FontFeatureCache.json", "NQ_sim_fea_sys.cch", "NQ_sim_meta_sys.cch", "FontClassVotes.bin"]

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

        # The same module and data copied elsewhere, as an installed tool has them: kept.
        fill()
        run()
        module = os.path.join(self.tmp.name, "lib", os.path.basename(FAKE))
        copied = os.path.join(self.tmp.name, "share")
        os.makedirs(os.path.dirname(module))
        shutil.copyfile(FAKE, module)
        shutil.copytree(data, copied, copy_function=shutil.copyfile)
        r = self.run_tool("fonts", "--module", module, "--data-dir", copied, "--cache-dir", cache)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertTrue(set(caches) <= set(os.listdir(cache)))

    def test_a_cache_folder_that_cannot_be_made_is_said_and_fails_index(self):
        blocker = os.path.join(self.tmp.name, "a-file")
        with open(blocker, "w") as f:
            f.write("not a folder")
        cache = os.path.join(blocker, "cache")
        said = ("fontrix: warning: cannot make the cache folder %s (Not a directory): nothing is kept between runs\n"
                % cache)
        for command, status in (("fonts", 0), ("index", 1)):
            r = subprocess.run([FONTRIX, "--module", FAKE, "--cache-dir", cache, command], capture_output=True,
                               text=True, timeout=120, env=self.env, cwd=self.tmp.name)
            self.assertEqual(r.returncode, status, r.stderr)
            self.assertTrue(r.stderr.startswith(said), r.stderr)

    def test_ctrl_c_while_waiting_shuts_the_module_down_in_order(self):
        report = os.path.join(self.tmp.name, "report.txt")
        # index waits for every service; listing fonts would not wait for them at all.
        tool = subprocess.Popen([FONTRIX, "index", "--module", FAKE], stdout=subprocess.PIPE,
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
        messages = [line for line in lines if line.startswith("message ")]
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
    unittest.main(verbosity=2)  # the log says why a test was skipped
