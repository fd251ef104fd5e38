#!/usr/bin/env python3
"""Writes small model files for the model-file fuzzer's seed folder (fuzz/seeds/dnm_reader).

Each seed is a valid model the engine can run on an 11 x 7 input, so mutations start from files
that reach construction and the forward pass. Deterministic: rerunning gives the same bytes.
"""
import os
import sys

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "training"))
import dnm  # noqa: E402

OUT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "seeds", "dnm_reader")


def values(rng, n):
    return rng.uniform(-1, 1, n).astype(np.float32)


def every_layer(rng):
    return [
        dnm.Data("data"),
        dnm.Conv("conv", "data", values(rng, 4 * 1 * 2 * 3), values(rng, 4), num_input=1, num_output=4,
                 kernel_w=3, kernel_h=2, stride_w=2, pad_w_begin=1, pad_h_end=1, ceil_mode=True),
        dnm.ReLU("relu", "conv"),
        dnm.LRN("norm", "relu", local_size=3, alpha=1e-2, beta=0.75, k=2.0),
        dnm.MaxPool("pmax", "norm", 2, 2),
        dnm.AvgPool("pavg", "norm", 3, 1, stride_w=2, stride_h=1, pad_w_end=1),
        dnm.Conv("grouped", "pmax", values(rng, 4 * 2 * 1 * 1), values(rng, 4), num_input=4, num_output=4,
                 kernel_w=1, kernel_h=1, group=2),
        dnm.Concat("cat", ["grouped", "pmax"], axis=2),
        dnm.FullyConnected("fc", ["cat"], [3 * 4 * 8], 5, values(rng, 3 * 4 * 8 * 5), values(rng, 5)),
        dnm.Softmax("prob", "fc"),
        dnm.Data("label", is_1d=True),
        dnm.LogLoss("loss", "prob", "label"),
    ]


def two_branches(rng):
    return [
        dnm.Data("data"),
        dnm.MaxPool("a", "data", 3, 3, stride_w=2, stride_h=2),
        dnm.AvgPool("b", "data", 3, 3, stride_w=2, stride_h=2),
        dnm.Concat("wide", ["a", "b"], axis=0),
        dnm.FullyConnected("fc", ["a", "b"], [6 * 3, 6 * 3], 3, values(rng, 2 * 18 * 3), values(rng, 3)),
    ]


def main():
    os.makedirs(OUT, exist_ok=True)
    rng = np.random.RandomState(20261122)
    for name, layers in (("every_layer.dnm", every_layer(rng)), ("two_branches.dnm", two_branches(rng))):
        dnm.write_model(os.path.join(OUT, name), layers)


if __name__ == "__main__":
    main()
