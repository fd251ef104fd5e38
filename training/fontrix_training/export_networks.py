#!/usr/bin/python3
"""Exports the trained network as the module's two model files, after checking that the C++
engine and PyTorch agree on them.

    training/run export_networks --work DIR [--out data]
        [--recognition-from FILE] [--similarity-from FILE] [--only similarity|recognition]

Writes OUT/NQ_sim_model.dnm (the trunk up to "pool4") and OUT/NQ_rec_model.dnm (the trunk,
"fc_rec" and "prob"), both from DIR/fontnet.pt, or either from FILE (the weights of a run
that branched off for one task alone). Each is first written to a temporary file and run by build/bin/dnm-run on
real crops from DIR (specimen crops and recognition crops); the largest difference from
PyTorch's output, relative to the output's largest magnitude, must be at most 1e-4, or
nothing is written.
"""
import sys
import argparse
import os
import subprocess
import tempfile

import numpy as np
import torch

from fontrix_training import dnm
from fontrix_training import fontnet
from fontrix_training import images
from fontrix_training import BIN, DATA

DNM_RUN = os.path.join(BIN, "dnm-run")
TOLERANCE = 1e-4


def load_net(work):
    """The finished network (DIR/fontnet.pt), or the last checkpoint of a run still going on."""
    path = os.path.join(work, "fontnet.pt")
    return load_file(path if os.path.exists(path) else os.path.join(work, "checkpoint.pt"))


def load_file(path):
    return fontnet.from_state(torch.load(path)).eval()


def sample_crops(work, count=10, lines=True):
    """Real inputs: five specimen crops of one face and five recognition crops (without `lines`,
    both cases' specimen crops)."""
    specimens = images.read_specimens(os.path.join(work, "specimens.bin"), limit=1)
    lower, upper = next(iter(specimens.values()))
    if not lines:
        return np.concatenate([images.specimen_crops(lower), images.specimen_crops(upper)])[:count, None]
    _, lines = images.read_lines(os.path.join(work, "lines_clean.bin"))
    rec = lines[0, :count // 2].astype(np.float32) - 128.0
    return np.concatenate([images.specimen_crops(lower), rec])[:, None]


def engine_output(model_path, layer, pictures, threads=None):
    """`layer` of the model as build/bin/dnm-run computes it for pictures (n, 1, height, width)
    or (n, height, width), one row per picture; on `threads` of the engine when given."""
    height, width = pictures.shape[-2:]
    with tempfile.TemporaryDirectory() as folder:
        source, result = os.path.join(folder, "in.f32"), os.path.join(folder, "out.f32")
        pictures.astype("<f4").tofile(source)
        subprocess.run([DNM_RUN, "--model", model_path, "--layer", layer, "--width", str(width),
                        "--height", str(height), "--count", str(len(pictures)), "--input", source,
                        "--output", result] + (["--threads", str(threads)] if threads else []),
                       check=True, stdout=subprocess.DEVNULL)
        return np.fromfile(result, "<f4").reshape(len(pictures), -1)


def relative_error(a, b):
    return float(np.abs(a - b).max() / max(1e-12, np.abs(b).max()))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--out", default=DATA)
    parser.add_argument("--recognition-from", help="weights of the recognition model (default: DIR's network)")
    parser.add_argument("--similarity-from", help="weights of the similarity model (default: DIR's network)")
    parser.add_argument("--only", choices=("similarity", "recognition"),
                        help="export one model alone (the other file is left as it is)")
    args = parser.parse_args(argv)
    wanted = {"similarity", "recognition"} if args.only is None else {args.only}
    own = [n for n in wanted if not getattr(args, f"{n}_from")]
    shared = load_net(args.work) if own else None
    sim_net = load_file(args.similarity_from) if args.similarity_from else shared
    rec_net = load_file(args.recognition_from) if args.recognition_from else shared
    if rec_net is None:
        rec_net = sim_net  # not exported: only its shapes are used below
    crops = sample_crops(args.work, lines="recognition" in wanted)
    with torch.no_grad():
        x = torch.from_numpy(crops)
        expected = {"pool4": sim_net.pool4(x).numpy(),
                    "prob": torch.softmax(rec_net.rec_scores(rec_net.pool4(x)), 1).numpy()}
    for file_name, net, with_prob, layer in (("NQ_sim_model.dnm", sim_net, False, "pool4"),
                                             ("NQ_rec_model.dnm", rec_net, True, "prob")):
        if ("similarity" if layer == "pool4" else "recognition") not in wanted:
            continue
        target = os.path.join(args.out, file_name)
        dnm.write_model(target + ".tmp", fontnet.export(net, with_prob))
        error = relative_error(engine_output(target + ".tmp", layer, crops), expected[layer])
        if error > TOLERANCE:
            os.unlink(target + ".tmp")
            raise SystemExit(f"{file_name}: the engine's {layer} differs from PyTorch's by {error:.2e}")
        os.replace(target + ".tmp", target)
        print(f"{file_name}: {os.path.getsize(target)} bytes, engine and PyTorch agree on {layer} "
              f"to {error:.1e} of its largest value", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
