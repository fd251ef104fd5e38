#!/usr/bin/python3
"""The installed tree as an application developer meets it: `cmake --install` into a temporary
prefix, examples/similar_fonts.c built against it once through find_package(Fontrix) and once
with `cc $(pkg-config --cflags --libs fontrix)`, both run from another folder on this machine's
fonts, and the installed fontrix tool beside them.

Usage: test_similar_fonts.py BUILD_DIR CMAKE   (run from the source tree)
"""
import os
import re
import subprocess
import sys
import tempfile
import unittest

BUILD = CMAKE = None
SOURCE = os.getcwd()
# A file only the installed data folder has, so the host's record of the data it read
# (module_stamp.txt in the cache folder) shows which folder that was.
MARKER = "installed-data-marker"


def run(args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, timeout=300, **kwargs)


class SimilarFontsExampleTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.prefix = os.path.join(cls.tmp.name, "prefix")
        cls.cache = os.path.join(cls.tmp.name, "cache")
        cls.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_") and k != "XDG_CACHE_HOME"}
        cls.env["PKG_CONFIG_PATH"] = os.path.join(cls.prefix, "lib", "pkgconfig")
        cls.check(run([CMAKE, "--install", BUILD, "--prefix", cls.prefix]))
        open(os.path.join(cls.prefix, "share", "fontrix", MARKER), "w").close()

        build = os.path.join(cls.tmp.name, "build-example")
        cls.configured = cls.check(run([CMAKE, "-S", os.path.join(SOURCE, "examples"), "-B", build,
                                        "-DCMAKE_PREFIX_PATH=" + cls.prefix], env=cls.env))
        cls.check(run([CMAKE, "--build", build], env=cls.env))
        cls.by_cmake = os.path.join(build, "similar_fonts")
        # As the pkg-config user writes it; the rpath only because the prefix is not a system one.
        cls.by_pkg_config = os.path.join(cls.tmp.name, "similar_fonts_pc")
        cls.check(run(["sh", "-c", 'cc -std=c99 -Wall -Wextra -pedantic -Werror "$1" -o "$2" '
                       '$(pkg-config --cflags --libs fontrix) -Wl,-rpath,"$3"', "sh",
                       os.path.join(SOURCE, "examples", "similar_fonts.c"), cls.by_pkg_config,
                       os.path.join(cls.prefix, "lib")], env=cls.env))

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @staticmethod
    def check(result):
        if result.returncode != 0:
            raise AssertionError("%s failed:\n%s%s" % (" ".join(result.args), result.stdout, result.stderr))
        return result

    def run_here(self, *args):
        """Runs from a folder that is neither the source nor the build tree."""
        return run(list(args), cwd=self.tmp.name, env=self.env)

    def test_the_cmake_package_names_the_installed_module(self):
        module = re.search(r"Fontrix module: (\S+)", self.configured.stdout)
        self.assertIsNotNone(module, self.configured.stdout)
        installed = os.path.join(os.path.realpath(self.prefix), "lib", "libfontrix.so")
        self.assertEqual(os.path.realpath(module.group(1)), installed)

    def test_both_builds_list_fonts_like_dejavu_sans(self):
        for binary in (self.by_cmake, self.by_pkg_config):
            r = self.run_here(binary, "--cache-dir", self.cache, "DejaVuSans")
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(r.stderr, "")
            rows = [line.split("  ") for line in r.stdout.splitlines()]
            self.assertTrue(all(len(row) == 2 for row in rows), r.stdout)
            scores = [float(score) for score, _ in rows]
            names = [name for _, name in rows]
            self.assertEqual(scores, sorted(scores, reverse=True))
            self.assertNotIn("DejaVuSans", names)
            self.assertTrue(any(name.startswith("DejaVu") for name in names[:5]), names[:5])
        with open(os.path.join(self.cache, "module_stamp.txt")) as stamp:
            self.assertIn(MARKER, stamp.read(), "the host library reads the installed data folder")

    def test_unknown_fonts_and_bad_usage_fail_with_a_message(self):
        for binary in (self.by_cmake, self.by_pkg_config):
            r = self.run_here(binary, "--cache-dir", self.cache, "NoSuchFontAnywhere")
            self.assertEqual(r.returncode, 1)
            self.assertIn("no installed font is named 'NoSuchFontAnywhere'", r.stderr)
            self.assertEqual(r.stdout, "")
            r = self.run_here(binary)
            self.assertEqual(r.returncode, 2)
            self.assertIn("usage:", r.stderr)

    def test_the_installed_tool_still_answers(self):
        r = self.run_here(os.path.join(self.prefix, "bin", "fontrix"), "--cache-dir", self.cache, "similar",
                          "DejaVuSans", "--limit", "3")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(len(r.stdout.splitlines()), 3)
        self.assertIn("DejaVu Sans", r.stdout)


if __name__ == "__main__":
    CMAKE = sys.argv.pop(2)
    BUILD = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)  # the log says why a test was skipped
