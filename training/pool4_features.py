"""The trunk's "pool4" over many crops, computed by the module's own engine and kept in the work
folder, so that a head on a fixed trunk trains in minutes rather than hours: the trunk's forward
pass is nearly all of a step's cost, and it is the same on every pass over the pictures.

The trunk is exported as the similarity model is (up to "pool4", normalisation folded) and run by
build/bin/dnm-run, so the features are exactly what the exported model computes at inference.
Each file's features go to DIR/pool4/<file>-<digest of the exported trunk>.npy (float16), so a
cache made with other weights is never taken for this one.
"""
import hashlib
import os
import tempfile

import numpy as np

import dnm
import export_networks
import fontnet
import images

# Crops per run of the engine: few enough that its buffers stay small, many enough that the
# model's load and the process's start are a small share.
CHUNK = 512


class Trunk:
    """A network's trunk as an exported model, with its digest."""

    def __init__(self, net):
        with tempfile.TemporaryDirectory() as folder:
            model = os.path.join(folder, "trunk.dnm")
            dnm.write_model(model, fontnet.export(net.eval(), False))
            with open(model, "rb") as f:
                self.model = f.read()
        self.digest = hashlib.sha1(self.model).hexdigest()[:12]

    def pool4(self, crops, threads=2):
        """float16 (n, 768) for uint8 crops (n, 109, 109), through the engine."""
        out = np.empty((len(crops), fontnet.FEATURES), np.float16)
        with tempfile.TemporaryDirectory() as folder:
            model = os.path.join(folder, "trunk.dnm")
            with open(model, "wb") as f:
                f.write(self.model)
            for start in range(0, len(crops), CHUNK):
                part = np.asarray(crops[start:start + CHUNK], np.float32) - 128.0
                out[start:start + len(part)] = export_networks.engine_output(model, "pool4", part, threads)
        return out


def line_features(work, trunk, file, classes, log=print):
    """(labels (n,), features float16 (n, 10, 768)) of the pictures of lines file `file` in DIR
    whose font is one of the first `classes` classes; computed once per trunk and kept."""
    labels, crops = images.read_lines(os.path.join(work, file))
    chosen = np.flatnonzero(labels < classes)
    folder = os.path.join(work, "pool4")
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, f"{os.path.splitext(file)[0]}-{trunk.digest}.npy")
    shape = (len(chosen), images.LINE_CROPS, fontnet.FEATURES)
    if os.path.exists(path):
        features = np.load(path, mmap_mode="r")
        if features.shape == shape:
            return labels[chosen], features
    log(f"{file}: pool4 of {len(chosen) * images.LINE_CROPS} crops through the engine", flush=True)
    features = np.empty(shape, np.float16)
    per_run = 8 * CHUNK // images.LINE_CROPS  # pictures read from the map at a time: eight engine runs
    for start in range(0, len(chosen), per_run):
        picked = chosen[start:start + per_run]
        flat = crops[picked].reshape(-1, images.SIDE, images.SIDE)
        features[start:start + len(picked)] = trunk.pool4(flat).reshape(len(picked), images.LINE_CROPS, -1)
    with open(path + ".tmp", "wb") as f:
        np.save(f, features)
    os.replace(path + ".tmp", path)
    return labels[chosen], features
