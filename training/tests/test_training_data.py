"""The training pipeline's own rules: crops where the module takes them, the picture files'
readers, the localisation network's export, the shipped table's choice and files, and the
classification fit."""
import contextlib
import io
import os
import shutil
import struct
import sys
import tempfile
import unittest

import numpy as np

TRAINING = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
try:
    import torch
except ImportError:  # a fresh machine: only `scripts/setup.sh --training` installs PyTorch
    raise unittest.SkipTest("PyTorch is not installed (scripts/setup.sh --training installs it)")

# Discovered without -t (from training/tests), the package's parent is not on the path.
sys.path.insert(0, TRAINING)
from fontrix_training import dnm  # noqa: E402 (after the PyTorch check)
from fontrix_training import evaluate  # noqa: E402 (after the PyTorch check)
from fontrix_training import export_networks  # noqa: E402 (after the PyTorch check)
from fontrix_training import fit_classification  # noqa: E402 (after the PyTorch check)
from fontrix_training import fontnet  # noqa: E402 (after the PyTorch check)
from fontrix_training import images  # noqa: E402 (after the PyTorch check)
from fontrix_training import locnet  # noqa: E402 (after the PyTorch check)
from fontrix_training import make_tables  # noqa: E402 (after the PyTorch check)
from fontrix_training import prepare_training_data  # noqa: E402 (after the PyTorch check)
from fontrix_training.corpus import splits as corpus_splits  # noqa: E402 (after the PyTorch check)
from fontrix_training import train_networks  # noqa: E402 (after the PyTorch check)

DEJAVU = "/usr/share/fonts/truetype/dejavu"


class SpecimenCrops(unittest.TestCase):
    def test_offsets_and_tiling_follow_the_update(self):
        self.assertEqual(images.crop_offsets(120), [0, 2, 5, 8, 11])
        strip = np.arange(109 * 40, dtype=np.uint8).reshape(109, 40)
        row = images.tiled(strip)
        self.assertEqual(row.shape, (109, 120))
        crops = images.specimen_crops(strip)
        self.assertEqual(crops.shape, (5, 109, 109))
        # Crop 4 starts at 11: column 29 of the first tile, then wraps into the second.
        np.testing.assert_array_equal(crops[4][:, 0], strip[:, 11].astype(np.float32) - 128)
        np.testing.assert_array_equal(crops[4][:, 29], strip[:, 0].astype(np.float32) - 128)

    def test_a_crop_wide_strip_gives_five_identical_crops(self):
        strip = np.random.default_rng(1).integers(0, 256, (109, 109), dtype=np.uint8)
        crops = images.specimen_crops(strip)
        for c in range(1, 5):
            np.testing.assert_array_equal(crops[c], crops[0])


class TemporaryFiles(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.folder.cleanup()

    def path(self, name, data):
        path = os.path.join(self.folder.name, name)
        with open(path, "wb") as f:
            f.write(data)
        return path


class PictureFiles(TemporaryFiles):
    def test_specimens_round_trip_and_truncation_is_refused(self):
        lower = bytes(range(109)) * 3
        upper = bytes(109 * 2)
        record = struct.pack("<iii", 7, 3, 2) + lower + upper
        path = self.path("s.bin", b"FXSPEC01" + record)
        specimens = images.read_specimens(path)
        self.assertEqual(list(specimens), [7])
        self.assertEqual(specimens[7][0].shape, (109, 3))
        self.assertEqual(images.specimen_labels(path), [7])
        two = self.path("two.bin", b"FXSPEC01" + record + struct.pack("<iii", 8, 1, 1) + bytes(218))
        self.assertEqual(list(images.read_specimens(two)), [7, 8])
        self.assertEqual(list(images.read_specimens(two, limit=1)), [7])
        self.assertEqual([label for label, _ in images.iter_specimens(two, {8})], [8])
        self.assertEqual(images.specimen_labels(two), [7, 8])
        with self.assertRaisesRegex(ValueError, "truncated"):
            images.read_specimens(self.path("t.bin", b"FXSPEC01" + record[:-1]))
        with self.assertRaisesRegex(ValueError, "not a specimens file"):
            images.read_specimens(self.path("u.bin", b"FXLINE01"))

    def test_lines_are_mapped_by_record(self):
        crops = np.arange(2 * 10 * 109 * 109, dtype=np.uint32).astype(np.uint8).reshape(2, 10, 109, 109)
        data = b"FXLINE01" + b"".join(struct.pack("<i", label) + crops[k].tobytes() for k, label in enumerate((5, 9)))
        labels, read = images.read_lines(self.path("l.bin", data))
        np.testing.assert_array_equal(labels, [5, 9])
        np.testing.assert_array_equal(read, crops)
        with self.assertRaisesRegex(ValueError, "truncated"):
            images.read_lines(self.path("m.bin", data[:-5]))

    def test_bands_carry_their_fractions(self):
        picture = np.arange(109 * 384, dtype=np.uint32).astype(np.uint8).reshape(109, 384)
        data = b"FXBAND01" + struct.pack("<iff", 3, 0.25, 0.75) + picture.tobytes()
        labels, bands, pictures = images.read_bands(self.path("b.bin", data))
        np.testing.assert_array_equal(labels, [3])
        np.testing.assert_array_equal(bands, [[0.25, 0.75]])
        np.testing.assert_array_equal(pictures[0], picture)
        with self.assertRaisesRegex(ValueError, "truncated"):
            images.read_bands(self.path("c.bin", data[:-1]))


class TrainingBatches(TemporaryFiles):
    def lines_file(self, name, labels):
        """Every crop of a picture filled with its label, so a crop shows where it came from."""
        crops = b"".join(struct.pack("<i", label) + bytes([label]) * (10 * 109 * 109) for label in labels)
        return self.path(name, b"FXLINE01" + crops)

    def test_crops_of_every_file_keep_their_labels_and_other_fonts_are_skipped(self):
        files = [self.lines_file("a.bin", [1, 7, 2]), self.lines_file("b.bin", [3, 9, 4, 0])]
        sampler = train_networks.LineSampler(files, 5, np.random.default_rng(1))
        self.assertEqual(len(sampler), 5)  # 7 and 9 are not classes
        x, y = sampler.batch(400)
        self.assertEqual(set(y.tolist()), {0, 1, 2, 3, 4})
        np.testing.assert_array_equal(x[:, 0, 50, 50].numpy(), y.numpy() - 128.0)

    def test_the_queue_masks_the_anchors_own_family_and_keeps_the_newest(self):
        queue = train_networks.NegativeQueue(3)
        self.assertEqual(queue.logits(torch.ones(2, 384), torch.tensor([0, 1])).shape, (2, 0))
        vectors = torch.nn.functional.normalize(torch.rand(4, 384), dim=1)
        queue.push(vectors[:2], torch.tensor([5, 6]))
        queue.push(vectors[2:], torch.tensor([7, 5]))
        self.assertEqual(queue.families.tolist(), [7, 5, 5])  # the oldest entry left
        scores = queue.logits(vectors[:1], torch.tensor([5]))
        self.assertTrue(torch.isinf(scores[0, 1:]).all() and torch.isfinite(scores[0, 0]))
        self.assertAlmostEqual(scores[0, 0].item(), (vectors[0] @ vectors[2]).item() / train_networks.SIM_TEMPERATURE,
                               places=4)

    def test_a_branch_warms_up_again_then_follows_the_whole_runs_cosine(self):
        rate = train_networks.learning_rate
        self.assertLess(rate(24000, 29000, 1.0, first=24000), 0.01 * rate(24000, 29000, 1.0))
        self.assertAlmostEqual(rate(24700, 29000, 1.0, first=24000), rate(24700, 29000, 1.0))
        self.assertEqual(rate(29000, 29000, 1.0, first=24000), 0.0)
        self.assertLess(rate(0, 8000, 1.0), rate(400, 8000, 1.0))  # a run from scratch warms up too

    def test_a_one_task_run_branches_off_and_keeps_the_normalisation(self):
        work = self.folder.name
        _, family_of = corpus_splits.read_labels()
        faces = sorted(family_of)[:3]
        for name, lines in (("rec_classes.txt", faces[:2]), ("sim_classes.txt", faces), ("names.txt", faces)):
            prepare_training_data.write_lines(os.path.join(work, name), lines)
        self.lines_file("lines.bin", [0, 1, 1, 0])
        strip = bytes(range(200)) * 109
        records = b"".join(struct.pack("<iii", k, 200, 200) + strip * 2 for k in range(3))
        self.path("specimens.bin", b"FXSPEC01" + records)
        start = fontnet.FontNet(2)
        init = os.path.join(work, "start.pt")
        torch.save({"net": start.state_dict(), "step": 0, "rec_classes": 2}, init)
        with open(init, "rb") as f:
            before = f.read()
        for task, batches in (("recognition", ["--sim-batch", "0", "--rec-batch", "4"]),
                              ("similarity", ["--sim-batch", "2", "--rec-batch", "0"])):
            with self.subTest(task):
                branch = os.path.join(work, task)
                with contextlib.redirect_stdout(io.StringIO()):
                    train_networks.main(["--work", work, "--init", init, "--steps", "2", "--threads", "1",
                                         "--save-to", branch] + batches)
                trained = torch.load(os.path.join(branch, "fontnet.pt"))["net"]
                for k, norm in enumerate(start.norms):
                    torch.testing.assert_close(trained[f"norms.{k}.running_mean"], norm.running_mean)
                    torch.testing.assert_close(trained[f"norms.{k}.running_var"], norm.running_var)
                self.assertFalse(torch.equal(trained["convs.0.weight"], start.convs[0].weight))
                self.assertTrue(os.path.exists(os.path.join(branch, "checkpoint.pt")))
        self.assertFalse(os.path.exists(os.path.join(work, "checkpoint.pt")))
        with open(init, "rb") as f:
            self.assertEqual(f.read(), before)

        # A run stopped part-way (--stop-at) and resumed with a shorter schedule goes on from
        # its checkpoint, optimiser and step, as the first stage did.
        first = os.path.join(work, "first")
        run = ["--work", work, "--threads", "1", "--save-to", first, "--sim-batch", "0", "--rec-batch", "4"]
        with contextlib.redirect_stdout(io.StringIO()):
            train_networks.main(run + ["--steps", "30", "--stop-at", "1"])
            self.assertEqual(torch.load(os.path.join(first, "checkpoint.pt"))["step"], 1)
            train_networks.main(run + ["--steps", "2", "--resume"])
        self.assertEqual(torch.load(os.path.join(first, "checkpoint.pt"))["step"], 2)


def trained_net():
    torch.manual_seed(4)
    net = fontnet.FontNet(6)
    with torch.no_grad():
        net.pool4(torch.rand(4, 1, 109, 109) * 255 - 128)  # batch-norm statistics to fold
        net.rec.weight.normal_()
    return net.eval()


class HiddenLayerExport(TemporaryFiles):
    @unittest.skipUnless(os.path.exists(export_networks.DNM_RUN), "the engine's dnm-run is not built")
    def test_the_engine_runs_a_hidden_layer_as_pytorch_does(self):
        torch.manual_seed(4)
        net = fontnet.FontNet(6, rec_hidden=40)
        with torch.no_grad():
            net.pool4(torch.rand(4, 1, 109, 109) * 255 - 128)  # batch-norm statistics to fold
            net.hidden.weight.normal_(0, 0.05)
            net.rec.weight.normal_(0, 0.05)
        net = fontnet.from_state({"net": net.state_dict(), "rec_classes": 6, "rec_hidden": 40}).eval()
        model = os.path.join(self.folder.name, "rec.dnm")
        dnm.write_model(model, fontnet.export(net, True))
        x = np.random.default_rng(2).integers(0, 256, (3, 1, 109, 109)).astype(np.float32) - 128
        with torch.no_grad():
            expected = torch.softmax(net.rec_scores(net.pool4(torch.from_numpy(x))), 1).numpy()
        got = export_networks.engine_output(model, "prob", x)
        np.testing.assert_allclose(got, expected, rtol=0, atol=1e-4 * np.abs(expected).max())


class ModuleAnswer(unittest.TestCase):
    def test_the_best_five_classes_with_an_entry_steer_by_their_probabilities(self):
        e = np.eye(4, dtype=np.float32)
        # Class 0 has no table entry; class 3 lies between classes 1 and 2; class 6, the sixth
        # class with an entry, would win the query if it were let in.
        vectors = [None, e[0], e[1], (e[0] + e[1]) / np.sqrt(2), e[2], e[2], 100 * e[3]]
        tail = [0.01, 0.01, 0.005]
        # Two close classes: the font between them is nearest their weighted sum.
        self.assertEqual(evaluate.answers(np.array([0.5, 0.45, 0.40, 0.05] + tail), vectors)[0], 3)
        # One clear class answers itself.
        self.assertEqual(evaluate.answers(np.array([0.5, 0.8, 0.1, 0.05] + tail), vectors)[0], 1)
        # Further answers follow the query's scores; a class without an entry is never answered.
        self.assertEqual(evaluate.answers(np.array([0.5, 0.8, 0.1, 0.05] + tail), vectors, 7),
                         [1, 3, 2, 4, 5, 6])


def letters(*shapes, rows=20):
    """A white specimen strip with dark letters: (gap before, width, height of ink) for each."""
    columns = []
    for gap, width, height in shapes:
        columns.append(np.full((rows, gap), 255, np.uint8))
        letter = np.full((rows, width), 255, np.uint8)
        letter[rows - height:] = 0
        columns.append(letter)
    columns.append(np.full((rows, 3), 255, np.uint8))
    return np.concatenate(columns, 1)


class DesignClasses(unittest.TestCase):
    def test_letter_shapes_are_compared_with_spacing_left_aside(self):
        tight = letters((2, 30, 10), (1, 24, 16), (1, 36, 8))
        loose = letters((6, 30, 10), (5, 24, 16), (9, 36, 8))
        self.assertEqual(evaluate.strip_distance(tight, loose), 0.0)
        # The first two letters touch in one cut and stand a column apart in the other: their pieces
        # pair as one, off by that column.
        touching = np.concatenate([letters((2, 30, 10))[:, :-3], letters((0, 24, 16), (1, 36, 8))], 1)
        self.assertEqual(len(evaluate.letter_pieces(touching)), 2)
        apart = letters((2, 30, 10), (1, 24, 16), (1, 36, 8))
        self.assertLess(evaluate.strip_distance(touching, apart), 5.0)
        self.assertLess(evaluate.strip_distance(apart, touching), 5.0)
        taller = letters((2, 30, 14), (1, 24, 16), (1, 36, 8))
        self.assertGreater(evaluate.strip_distance(taller, loose), 15.0)
        self.assertEqual(evaluate.strip_distance(np.full((20, 30), 255, np.uint8), loose), float("inf"))

    def test_a_design_is_the_same_letters_whatever_the_fonts_declare_or_nearly_in_one_style(self):
        face = letters((2, 30, 10), (1, 24, 16), (1, 36, 8))
        respaced = letters((1, 30, 10), (2, 24, 16), (1, 36, 8))  # as wide: another foundry's cut
        # Letters about 10 grey levels from the face's, and 18 or more from one another's.
        near = [letters((2, 30, 10), (1, 24, 16), (1, 36, 10)), letters((2, 30, 12), (1, 24, 16), (1, 36, 8)),
                letters((2, 30, 10), (1, 24, 19), (1, 36, 8)), letters((2, 30, 10), (1, 24, 16), (1, 36, 6))]
        wider = letters((2, 33, 10), (1, 27, 16), (1, 39, 8))
        other = letters((2, 30, 16), (1, 24, 6), (1, 36, 12))
        # 0 the face; 1 its cut, declared bold; 2 near letters, book against regular; 3 near letters,
        # medium; 4 near letters, slanted; 5 wider; 6 other letters, twin of 7 (no specimens);
        # 8 near letters of unknown style.
        strips = {0: face, 1: respaced, 2: near[0], 3: near[1], 4: near[2], 5: wider, 6: other, 8: near[3]}
        specimens = {c: (strip, strip) for c, strip in strips.items()}
        regular = (400.0, False)
        styles = [regular, (700.0, False), (380.0, False), (500.0, False), (400.0, True), regular, regular, regular,
                  None]
        twins = {c: {c} for c in range(9)}
        twins[6], twins[7] = {6, 7}, {6, 7}
        designs, distances = evaluate.design_classes(twins, styles, specimens)
        self.assertEqual(designs[0], {0, 1, 2})
        self.assertEqual(designs[1], {0, 1})  # near letters, but the bold is declared another style
        self.assertEqual(designs[2], {0, 2})
        for c in (3, 4, 5, 8):
            self.assertEqual(designs[c], {c})
        self.assertEqual(designs[6], {6, 7})  # other letters: only its twin
        self.assertEqual(designs[7], {6, 7})
        self.assertLess(distances[(0, 1)], 1.0)  # each pair measured once, smaller class first
        self.assertNotIn((0, 5), distances)  # too wide to be measured at all

    @unittest.skipUnless(shutil.which("fc-scan") and os.path.isdir(DEJAVU), "fc-scan or DejaVu is missing")
    def test_styles_come_from_the_fonts_on_opentype_weights(self):
        styles = evaluate.class_styles(["DejaVuSans-Bold", "DejaVuSans-Oblique", "DejaVuSans-ExtraLight", "Absent"],
                                       DEJAVU)
        self.assertEqual(styles[0], (700.0, False))
        self.assertEqual(styles[1], (400.0, True))
        self.assertEqual(styles[2][1], False)
        self.assertLess(styles[2][0], 300.0)
        self.assertIsNone(styles[3])


@unittest.skipUnless(os.path.exists(export_networks.DNM_RUN), "the engine's dnm-run is not built")
class LocalisationExport(unittest.TestCase):
    def test_the_engine_agrees_at_any_line_width(self):
        # The max over the whole width is two fixed poolings in the engine; it must give
        # PyTorch's answer for short lines, the training width and long lines alike.
        torch.manual_seed(3)
        net = locnet.LocNet()
        with torch.no_grad():
            net(torch.rand(4, 1, 109, 200) * 255)  # batch-norm statistics to fold
        net.eval()
        with tempfile.TemporaryDirectory() as folder:
            model = os.path.join(folder, "loc.dnm")
            dnm.write_model(model, locnet.export(net))
            for width in (33, 384, 2500):
                x = np.random.default_rng(width).integers(0, 256, (2, 1, 109, width)).astype(np.float32)
                with torch.no_grad():
                    expected = net(torch.from_numpy(x)).numpy()
                got = export_networks.engine_output(model, "detections", x)
                np.testing.assert_allclose(got, expected, rtol=0, atol=1e-4 * np.abs(expected).max(), err_msg=width)


def face(name, package, family="F"):
    return {"unique_name": name, "package": package, "family": family, "style": "Regular"}


class ShippedTable(unittest.TestCase):
    def test_common_faces_first_then_library_faces_of_seen_families(self):
        manifest = ([face(f"Sys{i}", "debian:fonts-dejavu-core=2") for i in range(3)]
                    + [face("Rare", "debian:fonts-aenigma=1"), face("Gone", "debian:fonts-dejavu-core=2")]
                    + [face(f"Web{i}", "npm:@fontsource/x=5") for i in range(6)])
        split = {f["unique_name"]: "train" for f in manifest}
        split["Web0"] = "test"
        drawable = {f["unique_name"] for f in manifest} - {"Gone"}
        table = prepare_training_data.choose_table(manifest, split, drawable, size=7)
        names = [f["unique_name"] for _, f in table]
        self.assertEqual(names[:3], ["Sys0", "Sys1", "Sys2"])
        self.assertNotIn("Gone", names)   # cannot be drawn
        self.assertNotIn("Web0", names)   # a test family
        self.assertEqual([len(i) for i, _ in table], [12] * 3 + [7] * 4)
        with self.assertRaisesRegex(ValueError, "only 9 faces"):
            prepare_training_data.choose_table(manifest, split, drawable, size=10)

    def test_meta_groups_never_mark_entries_as_made_on_a_users_machine(self):
        with tempfile.TemporaryDirectory() as folder:
            rows = [("abcdefg", "A-Regular", "A", "Regular"), ("abcdefghijkl", "B-Bold", "B", "Bold")]
            vectors = np.random.default_rng(2).random((2, 768)).astype(np.float32)
            feature, meta = os.path.join(folder, "f.bin"), os.path.join(folder, "m.bin")
            make_tables.write_pair(rows, vectors, feature, meta)
            groups = make_tables.read_meta(meta)
            self.assertEqual(groups, [["abcdefg", "0", "1", "A-Regular", "A", "Regular"],
                                      ["abcdefghijkl", "0", "1", "B-Bold", "B", "Bold"]])
            np.testing.assert_array_equal(np.fromfile(feature, "<f4").reshape(2, 768), vectors)


class ClassificationFit(unittest.TestCase):
    def test_both_losses_find_the_rule_and_the_weighting_lifts_a_rare_class(self):
        rng = np.random.default_rng(4)
        x = rng.standard_normal((1500, 5))
        y = (x[:, 1] - 0.5 * x[:, 3] + 0.3 * rng.standard_normal(1500) > 1.6).astype(float)  # about 7 %
        truth = np.array([0, 1, 0, -0.5, 0]) / np.hypot(1, 0.5)
        for loss in fit_classification.LOSSES:
            b, w = fit_classification.fit_row(loss, x, y, 1e-4, np.ones(len(y)))
            self.assertGreater(w @ truth / np.linalg.norm(w), 0.97, loss)
            _, threshold = fit_classification.best_threshold(b + x @ w, y > 0.5, 1.0)
            self.assertGreater(np.mean(((b + x @ w) > threshold) == (y > 0.5)), 0.95, loss)
        plain = fit_classification.least_squares(x, y, 1e-4, np.ones(len(y)))
        weighted = fit_classification.least_squares(x, y, 1e-4, np.where(y > 0.5, 10.0, 1.0))
        recall = lambda bw: np.mean((bw[0] + x[y > 0.5] @ bw[1]) > 0.5)  # noqa: E731
        self.assertGreater(recall(weighted), recall(plain))

    def test_logistic_fit_stays_finite_on_a_separable_class(self):
        x = np.linspace(-1, 1, 40)[:, None]
        y = (x[:, 0] > 0).astype(float)
        b, w = fit_classification.logistic(x, y, 1e-4, np.ones(40))
        self.assertTrue(np.isfinite(w).all() and w[0] > 0)
        self.assertTrue((((b + x @ w) > 0) == (y > 0.5)).all())

    def test_best_threshold_cuts_where_f_beta_is_highest(self):
        scores = np.array([0.9, 0.8, 0.7, 0.6, 0.5, 0.4, 0.3, 0.2])
        actual = np.array([True, True, False, True, False, False, True, False])
        f, threshold = fit_classification.best_threshold(scores, actual, 1.0)
        self.assertAlmostEqual(threshold, 0.55)  # 3 of the 4 found, 3 of 4 given: F1 0.75
        self.assertAlmostEqual(f, 0.75)
        _, threshold = fit_classification.best_threshold(scores, actual, 2.0)
        self.assertAlmostEqual(threshold, 0.25)  # beta 2 takes the last one in too
        tied = np.array([0.9, 0.5, 0.5, 0.1])
        _, threshold = fit_classification.best_threshold(tied, np.array([True, True, False, False]), 1.0)
        self.assertAlmostEqual(threshold, 0.3)  # below both tied scores, never between them

    def test_raw_row_decides_as_the_standardised_row_and_its_threshold(self):
        rng = np.random.default_rng(5)
        features = rng.standard_normal((200, 4)) * [3, 0.1, 50, 1] + [10, 0, -7, 2]
        mean, scale = features.mean(0), features.std(0)
        b, w, threshold = 0.3, np.array([0.5, -1.0, 0.2, 0.0]), 0.12
        standardised = b + ((features - mean) / scale) @ w
        for factor in (1.0, fit_classification.LOGISTIC_SCALE):
            intercept, raw = fit_classification.raw_row(b, w, mean, scale, threshold, factor)
            np.testing.assert_allclose(intercept + features @ raw, 0.5 + factor * (standardised - threshold))

    def test_folds_keep_a_family_together_and_family_weights_sum_to_one(self):
        families = [f"family {i // 3}" for i in range(300)]
        folds = fit_classification.family_folds(families)
        for i in range(0, 300, 3):
            self.assertEqual(len(set(folds[i:i + 3])), 1)
        self.assertEqual(set(folds), set(range(fit_classification.FOLDS)))
        weights = fit_classification.family_weights(["a", "a", "a", "b"])
        np.testing.assert_allclose(weights, [1 / 3, 1 / 3, 1 / 3, 1])


if __name__ == "__main__":
    unittest.main()
