"""Shared set-up of the tests that run fontrix on the shipped, trained data (data/) and the
machine's fonts: a cache folder of their own, the environment without FONTRIX_ settings, and the
tool, the module and the data folder from the command line.

Usage of such a test: TEST.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import os
import subprocess
import sys
import tempfile
import unittest

FONTRIX = MODULE = DATA = None


class ShippedDataTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.cache = os.path.join(cls.tmp.name, "cache")
        cls.env = {k: v for k, v in os.environ.items() if not k.startswith("FONTRIX_")}

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    @classmethod
    def run_tool(cls, *args):
        return subprocess.run([FONTRIX, "--module", MODULE, "--data-dir", DATA, "--cache-dir", cls.cache, *args],
                              capture_output=True, text=True, timeout=900, env=cls.env)


def main():
    global FONTRIX, MODULE, DATA
    FONTRIX, MODULE, DATA = sys.argv[1:4]
    # Verbose, so that the log says why a test was skipped.
    unittest.main(module="__main__", argv=sys.argv[:1] + sys.argv[4:], verbosity=2)
