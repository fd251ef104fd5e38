"""Heads trained on a fixed trunk: the recognition head's picture loss, the similarity
projection's vectors as the update makes them, their export, and both scripts on a toy work
folder through the engine."""
import contextlib
import io
import math
import os
import struct
import sys
import tempfile
import unittest

import numpy as np

TRAINING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, TRAINING)
sys.path.insert(0, os.path.join(TRAINING, "corpus"))
import torch  # noqa: E402

import dnm  # noqa: E402
import export_networks  # noqa: E402
import fontnet  # noqa: E402
import pool4_features  # noqa: E402
import prepare_training_data  # noqa: E402
import splits as corpus_splits  # noqa: E402
import train_head  # noqa: E402
import train_projection  # noqa: E402

HAVE_ENGINE = os.path.exists(export_networks.DNM_RUN)


def trained_net(classes=6, seed=4):
    """A small untrained network with normalisation statistics to fold and a live head."""
    torch.manual_seed(seed)
    net = fontnet.FontNet(classes)
    with torch.no_grad():
        net.pool4(torch.rand(4, 1, 109, 109) * 255 - 128)
        net.rec.weight.normal_()
    return net.eval()


class PictureLoss(unittest.TestCase):
    def test_the_picture_loss_is_the_log_of_the_mean_probability_the_module_scores(self):
        logits = torch.randn(3, 10, 7) * 4
        labels = torch.tensor([0, 6, 2])
        mean = torch.softmax(logits, 2).mean(1)
        expected = -torch.log(mean[torch.arange(3), labels]).mean()
        torch.testing.assert_close(train_head.loss_of(logits, labels, "picture"), expected)
        # The crop loss is every crop's own cross-entropy, whatever the others say.
        crops = -torch.log_softmax(logits, 2)[torch.arange(3), :, labels].mean()
        torch.testing.assert_close(train_head.loss_of(logits, labels, "crop"), crops)

    def test_one_sure_crop_outweighs_nine_flat_ones_only_in_the_picture_loss(self):
        logits = torch.zeros(1, 10, 4)
        logits[0, 0, 1] = 30.0  # one crop sure of the right class, the rest flat
        picture = train_head.loss_of(logits, torch.tensor([1]), "picture").item()
        self.assertAlmostEqual(picture, -math.log((1 + 9 * 0.25) / 10), places=5)
        self.assertGreater(train_head.loss_of(logits, torch.tensor([1]), "crop").item(), 1.2)


class SimilarityProjection(unittest.TestCase):
    def test_a_new_projection_keeps_the_vectors_and_is_saved_and_loaded(self):
        net = trained_net()
        crops = torch.rand(2, 5, 1, 109, 109) * 255 - 128
        with torch.no_grad():
            before = net.embedding(crops)
            net.add_projection()
            torch.testing.assert_close(net.embedding(crops), before)
            net.sim_proj.weight.normal_(0, 0.05)
            moved = net.embedding(crops)
        self.assertFalse(torch.allclose(moved, before))
        again = fontnet.from_state({"net": net.state_dict(), "rec_classes": 6}).eval()
        with torch.no_grad():
            torch.testing.assert_close(again.embedding(crops), moved)

    def test_face_vectors_reduce_both_specimens_as_the_update_does(self):
        net = trained_net()
        net.add_projection()
        with torch.no_grad():
            net.sim_proj.weight.normal_(0, 0.05)
            crops = torch.rand(3, 2, 5, 1, 109, 109) * 255 - 128
            pool = net.pool4(crops.flatten(0, 2)).view(3, 2, 5, -1)
            vectors = train_projection.face_vectors(net, pool)
            for case in range(2):
                torch.testing.assert_close(vectors[:, 384 * case:384 * (case + 1)], net.embedding(crops[:, case]))
        self.assertEqual(vectors.shape, (3, 768))

    def test_family_in_nearest_counts_a_sibling_among_the_first_five(self):
        rng = np.random.default_rng(3)
        vectors = rng.normal(size=(12, 8))
        vectors[1] = vectors[0] + 0.01  # 0 and 1 are siblings and near
        vectors[2] = -vectors[3]        # 2 and 3 are siblings and opposite
        family = np.array([0, 0, 1, 1] + list(range(2, 10)))
        self.assertEqual(train_projection.family_in_nearest(vectors, np.array([0, 1]), family), 1.0)
        self.assertEqual(train_projection.family_in_nearest(vectors, np.array([0, 2]), family, depth=1), 0.5)

    @unittest.skipUnless(HAVE_ENGINE, "the engine's dnm-run is not built")
    def test_the_engine_runs_the_projection_as_pytorch_does_and_the_trunk_leaves_it_out(self):
        net = trained_net()
        bare = pool4_features.Trunk(net)
        net.add_projection()
        with torch.no_grad():
            net.sim_proj.weight.normal_(0, 0.05)
            net.sim_proj.bias.normal_(0, 0.05)
        x = np.random.default_rng(2).integers(0, 256, (3, 1, 109, 109)).astype(np.float32) - 128
        with tempfile.TemporaryDirectory() as folder:
            model = os.path.join(folder, "sim.dnm")
            dnm.write_model(model, fontnet.export(net, False))
            with torch.no_grad():
                expected = net.project(net.pool4(torch.from_numpy(x))).numpy()
            got = export_networks.engine_output(model, "pool4", x)
        np.testing.assert_allclose(got, expected, rtol=0, atol=1e-4 * np.abs(expected).max())
        trunk = pool4_features.Trunk(net)
        self.assertEqual(trunk.digest, bare.digest)
        with torch.no_grad():
            pool4 = net.pool4(torch.from_numpy(x)).numpy()
        np.testing.assert_allclose(trunk.pool4((x[:, 0] + 128).astype(np.uint8)), pool4, rtol=0,
                                   atol=1e-2 * np.abs(pool4).max())


@unittest.skipUnless(HAVE_ENGINE, "the engine's dnm-run is not built")
class ScriptsOnAToyWorkFolder(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.work = self.folder.name

    def tearDown(self):
        self.folder.cleanup()

    def lines_file(self, name, labels, rng):
        records = b"".join(struct.pack("<i", label) + rng.integers(0, 256, 10 * 109 * 109, dtype=np.uint8).tobytes()
                           for label in labels)
        with open(os.path.join(self.work, name), "wb") as f:
            f.write(b"FXLINE01" + records)

    def test_the_head_is_widened_trained_and_saved_on_the_trunk_it_came_with(self):
        rng = np.random.default_rng(5)
        prepare_training_data.write_lines(os.path.join(self.work, "rec_classes.txt"), ["a", "b", "c"])
        self.lines_file("train.bin", [0, 1, 2, 5, 1, 0], rng)  # 5 is not a class: skipped
        self.lines_file("lines_validation.bin", [2, 0], rng)
        net = trained_net(classes=3)
        init = os.path.join(self.work, "init.pt")
        torch.save({"net": net.state_dict(), "step": 7, "rec_classes": 3}, init)
        out = os.path.join(self.work, "head")
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            train_head.main(["--work", self.work, "--init", init, "--save-to", out, "--lines", "train.bin",
                             "--hidden", "800", "--epochs", "2", "--batch", "2", "--threads", "1"])
        self.assertIn("5 training pictures", printed.getvalue())
        state = torch.load(os.path.join(out, "fontnet.pt"))
        trained = fontnet.from_state(state)
        self.assertEqual((trained.rec_hidden, state["step"]), (800, 7))
        for name, value in net.state_dict().items():
            if name.startswith(("convs.", "norms.")):
                torch.testing.assert_close(state["net"][name], value)
        # The features were kept for the next run, under the trunk's digest.
        self.assertEqual(len(os.listdir(os.path.join(self.work, "pool4"))), 2)
        with self.assertRaises(SystemExit):
            with contextlib.redirect_stderr(io.StringIO()):
                train_head.main(["--work", self.work, "--init", init, "--save-to", out, "--lines", "train.bin",
                                 "--hidden", "100"])

    def test_the_projection_is_trained_and_saved_with_the_network(self):
        _, family_of = corpus_splits.read_labels()
        split = corpus_splits.split_of_faces()
        by_family = {}
        for name in sorted(family_of):
            by_family.setdefault((split[name], family_of[name]), []).append(name)
        pairs = [faces[:2] for (s, _), faces in sorted(by_family.items()) if len(faces) >= 2]
        train = [p for p in pairs if split[p[0]] == "train"][:3]
        validation = [p for p in pairs if split[p[0]] == "validation"][:1]
        names = [n for pair in train + validation for n in pair]
        prepare_training_data.write_lines(os.path.join(self.work, "names.txt"), names)
        rng = np.random.default_rng(6)
        with open(os.path.join(self.work, "specimens.bin"), "wb") as f:
            f.write(b"FXSPEC01")
            for label in range(len(names)):
                f.write(struct.pack("<iii", label, 150, 120) + rng.integers(0, 256, 109 * 270, dtype=np.uint8).tobytes())
        net = trained_net(classes=3)
        init = os.path.join(self.work, "init.pt")
        torch.save({"net": net.state_dict(), "step": 7, "rec_classes": 3}, init)
        out = os.path.join(self.work, "projection")
        with contextlib.redirect_stdout(io.StringIO()) as printed:
            train_projection.main(["--work", self.work, "--init", init, "--save-to", out, "--epochs", "2",
                                   "--batch", "4", "--threads", "1", "--judge-every", "1"])
        self.assertIn("8 faces (6 training, 2 judged", printed.getvalue())
        state = torch.load(os.path.join(out, "fontnet.pt"))
        self.assertIn("sim_proj.weight", state["net"])
        torch.testing.assert_close(state["net"]["convs.0.weight"], net.convs[0].weight)
        self.assertEqual(state["rec_classes"], 3)


if __name__ == "__main__":
    unittest.main()
