#!/usr/bin/python3
"""Writes stand-in data into a folder, for tests and demonstrations until the trained data
lands: a small network whose "pool4" gives 768 values per 109 x 109 crop ("NQ_sim_model.dnm"),
a shipped pair of 1864 cloud fonts with random unit-half vectors ("NQ_sim_fea_fs.bin",
"NQ_sim_meta_fs.bin"), and a recognition network with its font table ("NQ_rec_model.dnm",
"NQ_rec_font.bin") over the fonts named on the command line.

Usage: make_test_data.py FOLDER [FONT_NAME ...]
"""
import os
import sys

import numpy as np

from fontrix_training import dnm


def trunk(rng):
    """109 -> max-pool 3/3 -> 37 -> conv 5/5, 192 channels -> 7 -> max-pool 4/3 -> 2 x 2 x 192."""
    return [
        dnm.Data("data"),
        dnm.MaxPool("pool0", "data", 3, 3),
        dnm.Conv("conv", "pool0", rng.normal(0, 0.02, (192, 1, 5, 5)).astype(np.float32),
                 np.full(192, 0.5, np.float32), num_input=1, num_output=192, kernel_w=5, kernel_h=5,
                 stride_w=5, stride_h=5),
        dnm.ReLU("relu", "conv"),
        dnm.MaxPool("pool4", "relu", 4, 4, stride_w=3, stride_h=3),
    ]


def main(folder, rec_fonts):
    os.makedirs(folder, exist_ok=True)
    rng = np.random.RandomState(109)
    dnm.write_model(os.path.join(folder, "NQ_sim_model.dnm"), trunk(rng))
    vectors = np.abs(rng.normal(size=(1864, 2, 384))).astype(np.float32)
    vectors /= np.linalg.norm(vectors, axis=2, keepdims=True)
    vectors.reshape(1864, 768).astype("<f4").tofile(os.path.join(folder, "NQ_sim_fea_fs.bin"))
    with open(os.path.join(folder, "NQ_sim_meta_fs.bin"), "w", newline="\n") as meta:
        for i in range(1864):
            meta.write("c%06d\n0\n1\nCloud%d\nCloud Family %d\nRegular\n" % (i, i, i))
    if rec_fonts:
        # The same trunk, then one class per font through a fully connected layer and softmax.
        n = len(rec_fonts)
        dnm.write_model(os.path.join(folder, "NQ_rec_model.dnm"), trunk(rng) + [
            dnm.FullyConnected("fc", ["pool4"], [768], n, rng.normal(0, 0.05, (n, 768)).astype(np.float32),
                               np.zeros(n, np.float32)),
            dnm.Softmax("prob", "fc"),
        ])
        with open(os.path.join(folder, "NQ_rec_font.bin"), "w", newline="\n") as table:
            for i, name in enumerate(rec_fonts):
                table.write("r%011d\n0\n1\n%s\nFamily\nRegular\n" % (i, name))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
