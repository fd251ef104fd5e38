"""The similarity trunk's top retrained towards the letter-likeness teacher over cached
lower-trunk features: the split of the trunk, the cache key, the loss and the mining."""
import collections
import contextlib
import io
import os
import struct
import sys
import tempfile
import unittest

import numpy as np

TRAINING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
try:
    import torch
    import torch.nn.functional as F
except ImportError:  # a fresh machine: only `scripts/setup.sh --training` installs PyTorch
    raise unittest.SkipTest("PyTorch is not installed (scripts/setup.sh --training installs it)")

# Discovered without -t (from training/tests), the package's parent is not on the path.
sys.path.insert(0, TRAINING)
from fontrix_training import class_head  # noqa: E402 (after the PyTorch check)
from fontrix_training import fontnet  # noqa: E402 (after the PyTorch check)
from fontrix_training import images  # noqa: E402 (after the PyTorch check)
from fontrix_training.corpus import splits as corpus_splits  # noqa: E402 (after the PyTorch check)
from fontrix_training import train_similarity_top as top  # noqa: E402 (after the PyTorch check)


def small_net(seed=3):
    torch.manual_seed(seed)
    net = fontnet.FontNet(4)
    with torch.no_grad():
        net.pool4(torch.rand(4, 1, 109, 109) * 255 - 128)  # normalisation statistics that matter
    return net.eval()


class TrunkSplit(unittest.TestCase):
    def test_lower_then_upper_is_the_whole_trunk_wherever_it_is_cut(self):
        net = small_net()
        x = torch.rand(3, 1, 109, 109) * 255 - 128
        for fixed, shape in ((5, (112, 6, 6)), (4, (128, 13, 13)), (1, (24, 27, 27)), (0, (1, 109, 109))):
            split = top.TrunkSplit(net, fixed)
            with torch.no_grad():
                lower = split.lower(x)
                self.assertEqual(tuple(lower.shape[1:]), split.shape)
                self.assertEqual(split.shape, shape)
                torch.testing.assert_close(split.upper(lower), net.pool4(x))
            trained = {id(p) for p in split.trained_parameters()}
            self.assertIn(id(net.convs[fixed].weight), trained)
            if fixed:
                self.assertNotIn(id(net.convs[fixed - 1].weight), trained)
            else:
                self.assertEqual(len(trained), 3 * len(fontnet.TRUNK))  # every weight, scale and shift
        for wrong in (-1, 7):
            with self.assertRaises(ValueError):
                top.TrunkSplit(net, wrong)

    def test_the_cache_key_follows_the_fixed_layers_only(self):
        net = small_net()
        split = top.TrunkSplit(net)
        digest = split.digest()
        with torch.no_grad():
            net.convs[5].weight.mul_(2.0)  # trained: not part of the cached features
        self.assertEqual(split.digest(), digest)
        self.assertNotEqual(top.TrunkSplit(net, 4).digest(), digest)
        with torch.no_grad():
            net.norms[4].running_mean.add_(0.5)
        self.assertNotEqual(split.digest(), digest)


class TeacherObjective(unittest.TestCase):
    """The batch loss follows the teacher's order, and mining finds what the teacher disowns."""

    def test_vectors_ordered_like_the_teacher_lose_less(self):
        # Four faces on a line, 2 teacher units apart: each face's nearest is its neighbour.
        distances = np.abs(np.subtract.outer(np.arange(4), np.arange(4))) * 2.0
        angles = torch.tensor([0.0, 0.3, 0.6, 0.9])
        alike = torch.stack([angles.cos(), angles.sin()], 1)
        shuffled = alike[[0, 2, 3, 1]]
        self.assertLess(top.distillation_loss(alike, distances, 4.0), top.distillation_loss(shuffled, distances, 4.0))

    def test_faces_with_nothing_near_teach_nothing(self):
        far = np.array([[0, 40, 50], [40, 0, 60], [50, 60, 0]], np.float32)
        v = F.normalize(torch.randn(3, 8), dim=1)
        self.assertIsNone(top.distillation_loss(v, far, 4.0))
        near = far.copy()
        near[0, 1] = near[1, 0] = 3  # two faces alike: only their rows count, the third's not
        loss = top.distillation_loss(v, near, 4.0)
        rows = top.distillation_loss(v[:2], near[:2, :2], 4.0)
        # The third face, far for the teacher, still takes a share of the vectors' distribution.
        self.assertGreater(float(loss), float(rows))

    def test_hard_negatives_are_training_faces_the_teacher_puts_far(self):
        class Toy:
            # Faces 0-5; the teacher's nearest of each (face 5 is not a training face).
            names = [str(i) for i in range(6)]
            near = [[1, 5], [0], [3], [2], [0], [0]]
        vectors = F.normalize(torch.tensor([[1.0, 0.0], [0.9, 0.1], [0.8, 0.2], [0.0, 1.0], [0.1, 0.9], [1.0, 0.0]]),
                              dim=1)
        train = np.arange(5)
        hard = top.mine(vectors, Toy, train, count=2, looked=3)
        for face, negatives in hard.items():
            self.assertNotIn(face, negatives)
            self.assertTrue(set(negatives).isdisjoint(Toy.near[face]))
            self.assertTrue(set(negatives) <= set(train))
        self.assertEqual(hard[0], [2, 4])  # 1 is the teacher's too; 5 is not a training face
        batch = top.batch_faces(np.random.default_rng(0), np.array([0, 2]), Toy, {0: [1], 2: [3]}, hard, near=3)
        self.assertEqual(len(batch), len(set(batch)))
        self.assertTrue({0, 1, 2, 3} <= set(batch))
        # With kinds, a near face the teacher agrees with is a negative when its class differs.
        Toy.primary = np.array([0, 1, 0, 0, -1, 0])
        kinds = top.mine(vectors, Toy, train, count=3, looked=3, kinds=True)
        self.assertEqual(kinds[0], [1, 2, 4])
        self.assertIn(0, kinds[1])  # the teacher's nearest of face 1, but of another class
        self.assertNotIn(0, hard[1])

    def test_the_kind_penalty_lowers_the_target_between_classes_only(self):
        distances = np.array([[0.0, 2.0, 2.0], [2.0, 0.0, 2.0], [2.0, 2.0, 0.0]])
        pushed = top.kind_distances(distances, np.array([0, 1, -1]), 3.0, 4.0)
        self.assertEqual(pushed[0, 1], 14.0)
        self.assertEqual(pushed[1, 0], 14.0)
        self.assertEqual(pushed[0, 2], 2.0)  # an unlabelled face is not pushed away
        self.assertEqual(np.diag(pushed).tolist(), [0.0, 0.0, 0.0])

    def test_the_class_head_loss_counts_labelled_faces_only(self):
        head = class_head.ClassHead(768, 8, dropout=0)
        weights = class_head.positive_weights(np.full(8, 0.25))
        v = F.normalize(torch.randn(4, 768), dim=1)
        classes = np.zeros((4, 8), dtype=bool)
        classes[0, 7] = classes[1, 4] = True
        labelled = np.array([True, True, False, False])
        self.assertIsNone(top.class_loss(head, weights, v, classes, np.zeros(4, dtype=bool)))
        whole = top.class_loss(head, weights, v, classes, labelled)
        changed = v.clone()
        changed[2:] = -changed[2:]  # the unlabelled faces change nothing
        self.assertAlmostEqual(float(whole), float(top.class_loss(head, weights, changed, classes, labelled)), places=6)


class ScriptOnAToyWorkFolder(unittest.TestCase):
    """Real corpus names (their families and splits come from the checked-in labels) with random
    specimens: the script's wiring, not what it learns."""

    def families_of(self, split, count):
        _, family_of = corpus_splits.read_labels()
        split_of = corpus_splits.split_of_faces()
        members = collections.defaultdict(list)
        for name, family in sorted(family_of.items()):
            if split_of[name] == split:
                members[family].append(name)
        return [faces[:3] for faces in members.values() if len(faces) >= 2][:count]

    def test_the_lower_trunk_and_the_head_are_kept_and_the_features_cached(self):
        training = [n for faces in self.families_of("train", 2) for n in faces]
        judged = [n for faces in self.families_of("validation", 2) for n in faces]
        names = training + judged
        rng = np.random.default_rng(6)
        with tempfile.TemporaryDirectory() as work:
            with open(os.path.join(work, "specimens.bin"), "wb") as f:
                f.write(b"FXSPEC01")
                for label in range(len(names)):
                    widths = rng.integers(60, 300, 2)
                    f.write(struct.pack("<iii", label, *widths))
                    for width in widths:
                        f.write(rng.integers(0, 256, (109, width), dtype=np.uint8).tobytes())
            for file, listed in (("names.txt", names), ("sim_classes.txt", training)):
                with open(os.path.join(work, file), "w", encoding="utf-8") as f:
                    f.write("\n".join(listed) + "\n")
            letters = os.path.join(work, "letters.npz")
            # Faint letters and all but equal advances: faces a few teacher units apart, near enough to teach.
            np.savez(letters, names=np.array(names), cells=rng.integers(0, 8, (len(names), 62, 32, 32), dtype=np.uint8),
                     advances=0.5 + 0.01 * rng.random((len(names), 62), dtype=np.float32))
            net = small_net()
            init = os.path.join(work, "init.pt")
            torch.save({"net": net.state_dict(), "step": 9, "rec_classes": 4}, init)
            out = os.path.join(work, "out")
            arguments = ["--work", work, "--init", init, "--save-to", out, "--fixed", "4", "--steps", "3",
                         "--seeds", "2", "--mine-every", "2", "--judge-every", "2", "--threads", "1",
                         "--teacher", letters]
            with contextlib.redirect_stdout(io.StringIO()) as printed:
                top.main(arguments)
            self.assertIn(f"{len(training)} training faces of {len(names)} with a teacher", printed.getvalue())
            self.assertIn("step 2: validation agreement", printed.getvalue())
            state = torch.load(os.path.join(out, "fontnet.pt"))
            self.assertEqual(state["step"], 9)
            for name, value in net.state_dict().items():
                if name.startswith(("convs.0.", "convs.3.", "norms.3.", "rec.")):
                    torch.testing.assert_close(state["net"][name], value)
            cached = os.listdir(os.path.join(work, "simtop"))
            self.assertEqual(len(cached), 1)
            # A second run takes the cached features instead of computing them again.
            with contextlib.redirect_stdout(io.StringIO()) as printed:
                top.main(arguments)
            self.assertNotIn("lower trunk over", printed.getvalue())
            self.assertEqual(os.listdir(os.path.join(work, "simtop")), cached)
            before = np.load(os.path.join(work, "simtop", cached[0]))
            # The whole trunk trains on the crops' pixels, which are not written to disk; the
            # crops it sees are the ones whose lower-trunk output the cache holds.
            split = top.TrunkSplit(net, 0)
            specimens = images.read_specimens(os.path.join(work, "specimens.bin"))
            name_of = dict(enumerate(names))
            _, pixels = top.lower_features(work, split, specimens, name_of, set(training))
            self.assertEqual(pixels.dtype, np.int8)
            with torch.no_grad():
                lower4 = top.TrunkSplit(net, 4).lower(torch.from_numpy(pixels[:2].astype(np.float32)).flatten(0, 1))
            np.testing.assert_allclose(before[:2].reshape(lower4.shape), lower4.numpy(), rtol=2e-3, atol=2e-2)
            with contextlib.redirect_stdout(io.StringIO()):
                top.main(arguments + ["--fixed", "0"])  # the last --fixed counts
            self.assertEqual(os.listdir(os.path.join(work, "simtop")), cached)  # pixels are held in memory
            trained = {id(p) for p in split.trained_parameters()}
            self.assertIn(id(net.convs[0].weight), trained)
            self.assertNotIn(id(net.rec.weight), trained)


if __name__ == "__main__":
    unittest.main()
