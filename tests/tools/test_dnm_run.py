#!/usr/bin/python3
"""dnm-run as users and other checks call it: the golden network through the command line, its
JSON line and raw output, and clear failures (exit status 1, message on stderr) on bad input.

Usage: test_dnm_run.py PATH/TO/dnm-run   (run from the source tree)
"""
import json
import os
import struct
import subprocess
import sys
import tempfile
import unittest

GOLDEN = os.path.join("tests", "deepnet", "golden")
DNM_RUN = None


def run(*args):
    return subprocess.run([DNM_RUN, *args], capture_output=True, text=True, timeout=60)


def floats(path):
    with open(path, "rb") as f:
        data = f.read()
    return struct.unpack("<%df" % (len(data) // 4), data)


class DnmRunTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()
        self.out = os.path.join(self.tmp.name, "out.f32")

    def tearDown(self):
        self.tmp.cleanup()

    def golden_args(self, layer="prob", count="3", model="golden_net.dnm", width="23"):
        return ["--model", os.path.join(GOLDEN, model), "--layer", layer, "--width", width,
                "--height", "19", "--count", count, "--input", os.path.join(GOLDEN, "golden_input.f32"),
                "--output", self.out]

    def test_golden_cases_through_the_command_line(self):
        with open(os.path.join(GOLDEN, "cases.txt")) as f:
            cases = [line.split() for line in f if line.strip() and not line.startswith("#")]
        self.assertGreaterEqual(len(cases), 4)
        for model, layer, w, h, n, dims, inp, want in cases:
            r = run("--model", os.path.join(GOLDEN, model), "--layer", layer, "--width", w, "--height", h,
                    "--count", n, "--input", os.path.join(GOLDEN, inp), "--output", self.out)
            self.assertEqual(r.returncode, 0, r.stderr)
            line = json.loads(r.stdout)
            self.assertEqual(line, {"layer": layer, "dims": [int(d) for d in dims.split(",")], "count": int(n)})
            got, expected = floats(self.out), floats(os.path.join(GOLDEN, want))
            self.assertEqual(len(got), len(expected))
            for g, e in zip(got, expected):
                self.assertLessEqual(abs(g - e), 1e-4 * (1e-3 + abs(e)) + 1e-7, layer)

    def test_errors_exit_1_with_a_message(self):
        bad = {
            "unknown layer": self.golden_args(layer="nope"),
            "input size": self.golden_args(width="24"),
            "count": self.golden_args(count="x"),
            "missing model": self.golden_args(model="missing.dnm"),
            "truncated model": None,
            "unknown flag": self.golden_args() + ["--fast"],
            "missing flag": self.golden_args()[:-2],
        }
        truncated = os.path.join(self.tmp.name, "truncated.dnm")
        with open(os.path.join(GOLDEN, "golden_net.dnm"), "rb") as f:
            data = f.read()
        with open(truncated, "wb") as f:
            f.write(data[: len(data) // 2])
        bad["truncated model"] = self.golden_args()
        bad["truncated model"][1] = truncated
        for what, args in bad.items():
            r = run(*args)
            self.assertEqual(r.returncode, 1, what)
            self.assertTrue(r.stderr.startswith("dnm-run: "), what + ": " + r.stderr)
            self.assertEqual(r.stdout, "", what)
        r = run(*bad["truncated model"])
        self.assertIn("deepnet_deserialize_layer_model(): model data ends too early", r.stderr)


if __name__ == "__main__":
    DNM_RUN = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)  # the log says why a test was skipped
