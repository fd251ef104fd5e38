"""The class vote's fit: the support of the nearest voters, the rule chosen per class and its
limits, the class head and its rules, and the data files the module reads."""
import math
import os
import sys
import tempfile
import unittest

import numpy as np

# Discovered without -t (from training/tests), the package's parent is not on the path.
sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from fontrix_training import fit_class_vote as vote  # noqa: E402
try:  # the head and the engine's check need PyTorch; the rules and the files do not
    from fontrix_training import class_head, export_networks
except ImportError:
    class_head = export_networks = None

TRAINING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")

SLAB = vote.CLASSES.index("fs_slab_serif")


class SupportTest(unittest.TestCase):
    def test_the_k_best_voters_weighted_by_their_scores_and_no_excluded_one(self):
        masks = np.zeros((4, 8), dtype=bool)
        masks[0, SLAB] = masks[1, SLAB] = True
        scores = np.array([[1.0, 0.9, 0.8, 0.1],
                           [-math.inf, 0.9, 0.8, 0.1]])  # the second query's own family is voter 0
        support = vote.support(scores, masks, 2, 0.1)
        self.assertAlmostEqual(support[0, SLAB], 1.0)
        self.assertAlmostEqual(support[1, SLAB], 1 / (1 + math.exp(-1)))
        self.assertTrue(np.all(support[:, 0] == 0))


class RuleTest(unittest.TestCase):
    def setUp(self):
        # Twenty faces: the row gives slab serif to the first ten, of which the look-alikes back
        # five (the slabs); the last ten are sans serifs with no slab support.
        self.actual = np.arange(20) < 5
        self.linear = np.arange(20) < 10
        self.votes = np.where(self.actual, 0.9, 0.0)
        self.none = np.zeros(20, dtype=bool)

    def test_a_rule_that_does_better_is_chosen_and_one_that_does_not_leaves_the_row(self):
        f, low, high = vote.fit_rule(self.votes, self.linear, self.actual, 1.0, self.none, self.none)
        self.assertEqual(f, 1.0)
        self.assertTrue(np.array_equal(vote.combine(self.linear[:, None], self.votes[:, None], [(low, high)])[:, 0],
                                       self.actual))
        flat = np.full(20, 0.3)  # the vote tells nothing
        rule = vote.fit_rule(flat, self.linear, self.actual, 1.0, self.none, self.none)[1:]
        self.assertEqual(rule, (0.0, vote.NEVER))

    def test_no_rule_gives_more_contradictions_or_fewer_primary_classes_than_the_row(self):
        primary = np.arange(20) == 7  # a face whose primary class this is, but the look-alikes disagree
        _, low, high = vote.fit_rule(self.votes, self.linear, self.actual, 1.0, self.none, primary)
        self.assertTrue(vote.combine(self.linear[:, None], self.votes[:, None], [(low, high)])[7, 0])
        rescue = np.where(np.arange(20) == 15, 0.9, self.votes)  # the vote would give it to a sans
        contradicting = np.arange(20) >= 10
        _, low, high = vote.fit_rule(rescue, self.none, self.actual, 1.0, contradicting, self.none)
        self.assertEqual((low, high), (0.0, vote.NEVER))


class HeadRuleTest(RuleTest):
    def test_the_head_is_weighted_in_where_it_tells_what_the_vote_cannot(self):
        # The vote backs all ten of the row's faces alike; the head tells the five slabs.
        votes = np.where(self.linear, 0.8, 0.0)[:, None].repeat(8, 1)
        head = np.where(self.actual, 0.9, 0.1)[:, None].repeat(8, 1)
        bits, actual = self.linear[:, None].repeat(8, 1), self.actual[:, None].repeat(8, 1)
        none = np.zeros((20, 8), dtype=bool)
        rules = vote.fit_head_rules(head, votes, bits, actual, none, none)
        self.assertGreater(rules[SLAB][2], 0)
        self.assertTrue(np.array_equal(vote.combine_head(bits, votes, head, rules)[:, SLAB], self.actual))
        # A head that tells nothing is given no weight: the rule is the vote's.
        flat = np.full((20, 8), 0.5)
        rules = vote.fit_head_rules(flat, votes, bits, actual, none, none)
        self.assertEqual(rules[SLAB][2], 0.0)


class DataFileTest(unittest.TestCase):
    def test_the_file_says_what_was_fitted(self):
        rules = [(0.0, vote.NEVER)] * 7 + [(0.05, 0.2)]
        head_rules = [(0.0, vote.NEVER, 0.0)] * 7 + [(0.1, 0.6, 0.75)]
        masks = np.zeros((2, 8), dtype=bool)
        masks[0, SLAB] = masks[1, 3] = masks[1, 4] = True
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "classes.tsv")
            vote.write_file(path, 40, 0.1, rules, ["abcdefg", "0123456789ab"], ["Slab-Bold", "Mono"], masks,
                            head_rules)
            k, temperature, read, faces = vote.read_file(path)
            with open(path, encoding="utf-8") as f:
                lines = [line.rstrip("\n").split("\t") for line in f if line.startswith("head_rule")]
        self.assertEqual((k, temperature), (40, 0.1))
        self.assertEqual(read, rules)
        self.assertEqual(faces, [("abcdefg", "Slab-Bold", 128), ("0123456789ab", "Mono", 24)])
        self.assertEqual(len(lines), 8)
        self.assertEqual(lines[SLAB], ["head_rule", "fs_slab_serif", "0.1", "0.6", "0.75"])
        self.assertEqual(lines[0][3], "inf")

    @unittest.skipIf(class_head is None, "PyTorch is not installed (scripts/setup.sh --training installs it)")
    def test_the_engine_runs_the_head_as_pytorch_does(self):
        if not os.path.exists(export_networks.DNM_RUN):
            self.skipTest("the engine's dnm-run is not built")
        rng = np.random.default_rng(3)
        # Two kinds of unit vectors: the head learns to tell them.
        x = rng.normal(size=(200, 768)).astype(np.float32)
        x[:100, 0] += 6
        x /= np.linalg.norm(x, axis=1, keepdims=True)
        y = np.zeros((200, 8), dtype=bool)
        y[:100, SLAB] = y[100:, 4] = True
        head = class_head.fit(x, y, steps=200)
        p = class_head.probabilities(head, x)
        self.assertGreater(p[:100, SLAB].mean(), 0.8)
        self.assertLess(p[100:, SLAB].mean(), 0.2)
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "NQ_class_head.dnm")
            class_head.write(head, path)
            logits = export_networks.engine_output(path, "class_logits", x[:7].reshape(7, 1, 1, 768))
        np.testing.assert_allclose(1 / (1 + np.exp(-logits)), p[:7], rtol=0, atol=1e-5)


if __name__ == "__main__":
    unittest.main()
