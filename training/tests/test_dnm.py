import os
import struct
import sys
import unittest

import numpy as np

# Discovered without -t (from training/tests), the package's parent is not on the path.
sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
from fontrix_training import dnm  # noqa: E402

try:
    import torch
    import torch.nn.functional as F
except ImportError:
    torch = None


def _rand(rng, *shape):
    return rng.standard_normal(shape).astype(np.float32)


def every_layer_model():
    """One layer of each type, with distinct values in every field."""
    rng = np.random.default_rng(1)
    return [
        dnm.Data("data"),
        dnm.Data("label", is_1d=True),
        dnm.Conv("conv", "data", _rand(rng, 6, 2, 3, 2), _rand(rng, 6), num_input=4,
                 num_output=6, kernel_w=2, kernel_h=3, stride_w=2, stride_h=3,
                 pad_w_begin=1, pad_w_end=0, pad_h_begin=2, pad_h_end=1, group=2,
                 ceil_mode=True),
        dnm.ReLU("relu", "conv"),
        dnm.LRN("norm", "relu", 5, alpha=1e-4, beta=0.75, k=2.0),
        dnm.MaxPool("pmax", "norm", 3, 2, 2, 1, 1, 0, 0, 1),
        dnm.AvgPool("pavg", "norm", 2, 3, 1, 2, 0, 1, 1, 0),
        dnm.Concat("cat", ["pmax", "pavg"], axis=2),
        dnm.FullyConnected("fc", ["cat", "relu"], [7, 3], 4,
                           [_rand(rng, 4, 7), _rand(rng, 4, 3)], _rand(rng, 4)),
        dnm.Softmax("prob", "fc"),
        dnm.LogLoss("loss", "prob", "label"),
        dnm.UnknownLayer("odd", ["prob"], 42, b"\x01\x02\x03"),
    ]


class RoundTripTest(unittest.TestCase):
    def test_every_layer_type_reads_back_equal(self):
        layers = every_layer_model()
        back = dnm.read_model(dnm.model_bytes(layers))
        self.assertEqual(len(back), len(layers))
        for a, b in zip(layers, back):
            self.assertIs(type(a), type(b))
            self.assertEqual(a, b, "layer %s" % a.name)
        self.assertEqual(back[4].local_size, 5)
        self.assertAlmostEqual(back[4].alpha, 1e-4, places=10)
        self.assertEqual(back[8].input_sizes, [7, 3])

    def test_rewrite_is_byte_identical(self):
        data = dnm.model_bytes(every_layer_model())
        self.assertEqual(dnm.model_bytes(dnm.read_model(data)), data)

    def test_fc_blocks_follow_input_order(self):
        w0 = np.arange(6, dtype=np.float32).reshape(2, 3)
        w1 = 100 + np.arange(8, dtype=np.float32).reshape(2, 4)
        fc = dnm.FullyConnected("fc", ["a", "b"], [3, 4], 2, [w0, w1], [0, 0])
        back = dnm.read_model(dnm.model_bytes([dnm.Data("a"), dnm.Data("b"), fc]))[2]
        blocks = back.weight_blocks()
        np.testing.assert_array_equal(blocks[0], w0)
        np.testing.assert_array_equal(blocks[1], w1)


class ByteLayoutTest(unittest.TestCase):
    def test_header_and_records_match_hand_layout(self):
        layers = [
            dnm.Data("in"),
            dnm.Conv("c", "in", [[[[1.0, 2.0]]], [[[3.0, 4.0]]]], [0.5, -0.5],
                     num_input=2, num_output=2, kernel_w=2, kernel_h=1, stride_w=3,
                     stride_h=4, pad_w_begin=5, pad_w_end=6, pad_h_begin=7,
                     pad_h_end=8, group=2, ceil_mode=True),
            dnm.LRN("n", "c", 3, alpha=0.5, beta=0.25, k=2.0),
            dnm.MaxPool("p", "n", 1, 2, 3, 4, 5, 6, 7, 8),
        ]
        header = b"DNMF" + b"\x01\x00\x00\x00" + b"\x00\x00\x00\x00" + b"\x04\x00\x00\x00"
        data_body = (b"\x00\x00\x00\x00" + b"\x02\x00\x00\x00in" + b"\x00\x00\x00\x00"
                     + b"\x00\x00\x00\x00")
        conv_body = (struct.pack("<I", 1) + struct.pack("<I", 1) + b"c"
                     + struct.pack("<II", 1, 2) + b"in"
                     # ceil, out, group, kw, kh, in, sw, sh, pwb, pwe, phb, phe
                     + struct.pack("<12I", 1, 2, 2, 2, 1, 2, 3, 4, 5, 6, 7, 8)
                     + struct.pack("<4f", 1, 2, 3, 4) + struct.pack("<2f", 0.5, -0.5))
        lrn_body = (struct.pack("<II", 4, 1) + b"n" + struct.pack("<II", 1, 1) + b"c"
                    + struct.pack("<I", 3) + struct.pack("<3f", 2.0, 0.5, 0.25))
        pool_body = (struct.pack("<II", 5, 1) + b"p" + struct.pack("<II", 1, 1) + b"n"
                     + struct.pack("<8I", 1, 2, 3, 4, 5, 6, 7, 8))
        self.assertEqual(len(data_body), 18)
        self.assertEqual(len(conv_body), 91)
        expected = header + b"".join(struct.pack("<Q", len(b)) + b
                                     for b in (data_body, conv_body, lrn_body, pool_body))
        self.assertEqual(dnm.model_bytes(layers), expected)

    def test_fc_and_small_types_layout(self):
        layers = [
            dnm.Data("a"), dnm.Data("b", is_1d=True),
            dnm.FullyConnected("f", ["a", "b"], [1, 2], 1, [[[9.0]], [[8.0, 7.0]]], [6.0]),
            dnm.Concat("k", ["a", "a"], axis=1),
            dnm.AvgPool("v", "a", 2, 2),
            dnm.ReLU("r", "f"), dnm.Softmax("s", "r"), dnm.LogLoss("l", "s", "b"),
        ]
        data = dnm.model_bytes(layers)
        # Walk records by their length words; check each type's tail.
        pos, tails = 16, []
        while pos < len(data):
            (length,) = struct.unpack_from("<Q", data, pos)
            tails.append(data[pos + 8:pos + 8 + length])
            pos += 8 + length
        self.assertEqual(pos, len(data))
        self.assertEqual(len(tails), len(layers))
        self.assertTrue(tails[1].endswith(struct.pack("<I", 1)))
        self.assertTrue(tails[2].endswith(struct.pack("<2I", 1, 2) + struct.pack("<I", 1)
                                          + struct.pack("<4f", 9, 8, 7, 6)))
        self.assertTrue(tails[3].endswith(b"a" + struct.pack("<I", 1)))
        self.assertTrue(tails[4].endswith(struct.pack("<8I", 2, 2, 2, 2, 0, 0, 0, 0)))
        self.assertEqual(tails[5], struct.pack("<2I", 7, 1) + b"r"
                         + struct.pack("<2I", 1, 1) + b"f" + struct.pack("<I", 0))
        self.assertEqual(tails[6], struct.pack("<2I", 16, 1) + b"s"
                         + struct.pack("<2I", 1, 1) + b"r")
        self.assertEqual(tails[7], struct.pack("<2I", 17, 1) + b"l" + struct.pack("<I", 2)
                         + struct.pack("<I", 1) + b"s" + struct.pack("<I", 1) + b"b")

    def test_utf8_names_are_counted_in_bytes(self):
        data = dnm.model_bytes([dnm.Data("dät")])
        self.assertEqual(data[28:36], struct.pack("<I", 4) + "dät".encode("utf-8"))
        self.assertEqual(dnm.read_model(data)[0].name, "dät")


class WriterValidationTest(unittest.TestCase):
    def conv(self, **kw):
        args = dict(num_input=4, num_output=6, kernel_w=2, kernel_h=3, group=2)
        weights = kw.pop("weights", np.zeros((6, 2, 3, 2)))
        biases = kw.pop("biases", np.zeros(6))
        args.update(kw)
        return dnm.Conv("c", "d", weights, biases, **args)

    def assertRejected(self, layers, message):
        with self.assertRaisesRegex(ValueError, message):
            dnm.model_bytes([dnm.Data("d")] + layers)

    def test_conv_weight_and_bias_sizes(self):
        self.assertRejected([self.conv(weights=np.zeros(71))], "weights")
        self.assertRejected([self.conv(weights=np.zeros((6, 4, 3, 2)))], "weights")
        # kernel_h and kernel_w swapped: same size, wrong shape.
        self.assertRejected([self.conv(weights=np.zeros((6, 2, 2, 3)))], "weights")
        self.assertRejected([self.conv(biases=np.zeros(5))], "biases")

    def test_conv_group_and_sizes(self):
        self.assertRejected([self.conv(group=3, weights=np.zeros(48))], "group")
        self.assertRejected([self.conv(num_output=5, biases=np.zeros(5),
                                       weights=np.zeros(60))], "group")
        self.assertRejected([self.conv(stride_w=0)], "stride_w")
        self.assertRejected([self.conv(pad_h_end=-1)], "u32")

    def test_non_finite_weights(self):
        w = np.zeros((6, 2, 3, 2))
        w[0, 0, 0, 0] = np.nan
        with self.assertRaisesRegex(ValueError, "non-finite"):
            self.conv(weights=w)

    def test_inputs_must_be_earlier_layers(self):
        self.assertRejected([dnm.ReLU("r", "nope")], "'nope' is not an earlier layer")
        with self.assertRaisesRegex(ValueError, "earlier"):
            dnm.model_bytes([dnm.ReLU("r", "d"), dnm.Data("d")])
        with self.assertRaisesRegex(ValueError, "earlier"):
            dnm.model_bytes([dnm.ReLU("r", "r")])

    def test_input_counts(self):
        self.assertRejected([dnm.Concat("k", [])], "inputs")
        r = dnm.ReLU("r", "d")
        r.inputs = ["d", "d"]
        self.assertRejected([r], "2 inputs, expected 1")

    def test_fc_sizes(self):
        with self.assertRaisesRegex(ValueError, "block 1"):
            dnm.FullyConnected("f", ["d", "d"], [2, 3], 2, [np.zeros((2, 2)), np.zeros((3, 2))],
                               np.zeros(2))
        with self.assertRaisesRegex(ValueError, "2 weight blocks for 1"):
            dnm.FullyConnected("f", ["d"], [2], 2, [np.zeros((2, 2)), np.zeros((2, 2))], np.zeros(2))
        self.assertRejected([dnm.FullyConnected("f", ["d", "d"], [2], 2, np.zeros(4), np.zeros(2))],
                            "input sizes")
        self.assertRejected([dnm.FullyConnected("f", "d", [3], 2, np.zeros(5), np.zeros(2))],
                            "weights")
        self.assertRejected([dnm.FullyConnected("f", "d", [3], 2, np.zeros((3, 2)), np.zeros(2))],
                            "shape")
        self.assertRejected([dnm.FullyConnected("f", "d", [3], 2, np.zeros(6), np.zeros(3))],
                            "biases")

    def test_other_fields(self):
        self.assertRejected([dnm.Concat("k", ["d", "d"], axis=3)], "axis")
        self.assertRejected([dnm.MaxPool("p", "d", 0, 2)], "kernel_w")
        self.assertRejected([dnm.LRN("n", "d", 0, 1, 1, 1)], "local_size")
        self.assertRejected([dnm.Data("")], "non-empty")


class ReaderValidationTest(unittest.TestCase):
    def setUp(self):
        self.data = dnm.model_bytes([dnm.Data("d"), dnm.ReLU("r", "d")])

    def test_header_checks(self):
        with self.assertRaisesRegex(ValueError, "magic"):
            dnm.read_model(b"FMND" + self.data[4:])
        with self.assertRaisesRegex(ValueError, "version"):
            dnm.read_model(self.data[:4] + struct.pack("<I", 2) + self.data[8:])
        with self.assertRaisesRegex(ValueError, "negative"):
            dnm.read_model(self.data[:12] + struct.pack("<i", -1))

    def test_truncation_and_trailing_bytes(self):
        for cut in (3, 15, 20, len(self.data) - 1):
            with self.assertRaisesRegex(ValueError, "truncated"):
                dnm.read_model(self.data[:cut])
        with self.assertRaisesRegex(ValueError, "trailing"):
            dnm.read_model(self.data + b"\x00")

    def test_record_length_must_match_contents(self):
        # Grow the Data record by one byte and fix up its length word.
        (length,) = struct.unpack_from("<Q", self.data, 16)
        bad = (self.data[:16] + struct.pack("<Q", length + 1) + self.data[24:24 + length]
               + b"\x00" + self.data[24 + length:])
        with self.assertRaisesRegex(ValueError, "record length"):
            dnm.read_model(bad)

    def test_dangling_input_is_reported(self):
        data = dnm.model_bytes([dnm.Data("d"), dnm.ReLU("r", "d")])
        # The ReLU's input name is the last "d" in the file.
        at = data.rindex(b"d")
        bad = data[:at] + b"x" + data[at + 1:]
        with self.assertRaisesRegex(ValueError, "earlier"):
            dnm.read_model(bad)
        self.assertEqual(dnm.read_model(bad, validate=False)[1].inputs, ["x"])


@unittest.skipIf(torch is None, "PyTorch is not installed (scripts/setup.sh --training installs it)")
class TorchHelperTest(unittest.TestCase):
    def setUp(self):
        torch.manual_seed(0)

    def run_conv_layer(self, layer, x):
        """torch forward of a Conv layer from its fields alone."""
        w = torch.from_numpy(layer.weights.reshape(layer.num_output, -1, layer.kernel_h,
                                                   layer.kernel_w))
        xp = F.pad(x, (layer.pad_w_begin, layer.pad_w_end, layer.pad_h_begin, layer.pad_h_end))
        return F.conv2d(xp, w, torch.from_numpy(layer.biases),
                        stride=(layer.stride_h, layer.stride_w), groups=layer.group)

    def test_conv_fields_reproduce_module(self):
        m = torch.nn.Conv2d(4, 6, kernel_size=(3, 2), stride=(1, 2), padding=(1, 0), groups=2)
        extra = (2, 1, 0, 3)  # w_begin, w_end, h_begin, h_end
        layer = dnm.conv_from_torch("c", "d", m, extra_pad=extra)
        self.assertEqual((layer.kernel_h, layer.kernel_w, layer.stride_h, layer.stride_w),
                         (3, 2, 1, 2))
        self.assertEqual((layer.pad_w_begin, layer.pad_w_end, layer.pad_h_begin, layer.pad_h_end),
                         (2, 1, 1, 4))
        layer = dnm.read_model(dnm.model_bytes([dnm.Data("d"), layer]))[1]
        x = torch.randn(2, 4, 7, 9)
        with torch.no_grad():
            want = m(F.pad(x, extra))
            got = self.run_conv_layer(layer, x)
        torch.testing.assert_close(got, want)

    def test_fold_batchnorm_matches_eval_mode(self):
        m = torch.nn.Conv2d(3, 5, 3, padding=1, bias=False)
        bn = torch.nn.BatchNorm2d(5)
        bn.running_mean.uniform_(-1, 1)
        bn.running_var.uniform_(0.5, 2)
        bn.weight.data.uniform_(0.5, 1.5)
        bn.bias.data.uniform_(-1, 1)
        bn.eval()
        layer = dnm.conv_from_torch("c", "d", m, bn=bn)
        x = torch.randn(2, 3, 6, 5)
        with torch.no_grad():
            torch.testing.assert_close(self.run_conv_layer(layer, x), bn(m(x)),
                                       rtol=1e-5, atol=1e-5)
        with self.assertRaisesRegex(ValueError, "features"):
            dnm.fold_batchnorm(m, torch.nn.BatchNorm2d(4))

    def test_conv_rejects_unsupported_modules(self):
        with self.assertRaisesRegex(ValueError, "dilation"):
            dnm.conv_from_torch("c", "d", torch.nn.Conv2d(1, 1, 3, dilation=2))
        with self.assertRaisesRegex(ValueError, "zero padding"):
            dnm.conv_from_torch("c", "d", torch.nn.Conv2d(1, 1, 3, padding=1,
                                                          padding_mode="reflect"))

    def test_fc_splits_linear_by_input(self):
        lin = torch.nn.Linear(7, 3)
        layer = dnm.fc_from_torch("f", ["a", "b"], lin, input_sizes=[4, 3])
        a, b = torch.randn(2, 4), torch.randn(2, 3)
        wa, wb = (torch.from_numpy(w) for w in layer.weight_blocks())
        got = a @ wa.T + b @ wb.T + torch.from_numpy(layer.biases)
        with torch.no_grad():
            torch.testing.assert_close(got, lin(torch.cat([a, b], 1)))
        with self.assertRaisesRegex(ValueError, "sum to 6"):
            dnm.fc_from_torch("f", ["a", "b"], lin, input_sizes=[3, 3])

    def test_lrn_fields(self):
        layer = dnm.lrn_from_torch("n", "d", torch.nn.LocalResponseNorm(5, 1e-4, 0.75, 2.0))
        self.assertEqual((layer.local_size, layer.beta, layer.k), (5, 0.75, 2.0))
        self.assertAlmostEqual(layer.alpha, 1e-4)
        with self.assertRaisesRegex(ValueError, "even"):
            dnm.lrn_from_torch("n", "d", torch.nn.LocalResponseNorm(4))


if __name__ == "__main__":
    unittest.main()
