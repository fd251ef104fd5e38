"""The recognition head trained on a fixed trunk: the picture loss, the trunk's features through
the engine, and the script on a toy work folder."""
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
try:
    import torch  # noqa: E402
except ImportError:  # a fresh machine: only `scripts/setup.sh --training` installs PyTorch
    raise unittest.SkipTest("PyTorch is not installed (scripts/setup.sh --training installs it)")

import export_networks  # noqa: E402
import fontnet  # noqa: E402
import pool4_features  # noqa: E402
import prepare_training_data  # noqa: E402
import train_head  # noqa: E402

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


@unittest.skipUnless(HAVE_ENGINE, "the engine's dnm-run is not built")
class TrunkFeatures(unittest.TestCase):
    def test_the_engine_gives_pytorchs_pool4_and_the_digest_follows_the_weights(self):
        net = trained_net()
        x = np.random.default_rng(2).integers(0, 256, (3, 109, 109)).astype(np.uint8)
        with torch.no_grad():
            expected = net.pool4(torch.from_numpy(x[:, None].astype(np.float32) - 128)).numpy()
        trunk = pool4_features.Trunk(net)
        np.testing.assert_allclose(trunk.pool4(x), expected, rtol=0, atol=1e-2 * np.abs(expected).max())
        self.assertEqual(pool4_features.Trunk(net).digest, trunk.digest)
        with torch.no_grad():
            net.rec.weight.add_(1.0)  # the head is not the trunk
        self.assertEqual(pool4_features.Trunk(net).digest, trunk.digest)
        with torch.no_grad():
            net.convs[6].weight.mul_(1.01)
        self.assertNotEqual(pool4_features.Trunk(net).digest, trunk.digest)


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


if __name__ == "__main__":
    unittest.main()
