#!/usr/bin/python3
"""Judges the trained network on what it did not learn from; prints Markdown for REPORT.md.

    /usr/bin/python3 training/evaluate.py --work DIR

- Recognition, on pictures drawn with other seeds than training's (DIR/lines_heldout.bin,
  degraded; DIR/lines_clean.bin, clean): the mean "prob" over a picture's ten crops, as the
  module computes it; top-1 and top-5 over the recognition table's fonts.
- Similarity, on the vectors the module itself computed for every corpus face
  (DIR/module-cache, made by make_tables.py): for each face of a test-split family with at
  least two faces, is another face of its family among its 5 nearest (dot product) of all
  corpus faces; and the nearest neighbours of well-known fonts.
"""
import argparse
import collections
import os
import sys

import numpy as np
import torch

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "corpus"))
import export_networks  # noqa: E402
import images  # noqa: E402
import make_tables  # noqa: E402
import splits as corpus_splits  # noqa: E402

WELL_KNOWN = ("DejaVuSans", "DejaVuSerif", "LiberationMono", "Cantarell-Regular", "NimbusRoman-Regular",
              "TeXGyreHeros-Regular", "NotoSerif-Regular", "OpenSans-Regular", "Lato-Regular",
              "UnifrakturMaguntia-Book", "GreatVibes-Regular", "RobotoSlab-Regular")


def recognition(net, path, batch=64):
    labels, crops = images.read_lines(path)
    top1 = top5 = 0
    with torch.no_grad():
        for start in range(0, len(labels), batch):
            x = torch.from_numpy(crops[start:start + batch].astype(np.float32) - 128.0)
            n = x.shape[0]
            prob = torch.softmax(net.rec(net.pool4(x.view(-1, 1, images.SIDE, images.SIDE))), 1)
            mean = prob.view(n, images.LINE_CROPS, -1).mean(1)
            best = mean.topk(5, 1).indices.numpy()
            truth = labels[start:start + n]
            top1 += int(np.sum(best[:, 0] == truth))
            top5 += int(np.sum(np.any(best == truth[:, None], axis=1)))
    return len(labels), top1 / len(labels), top5 / len(labels)


def similarity(work):
    computed = make_tables.read_cache(os.path.join(work, "module-cache"))
    _, families = corpus_splits.read_labels()
    split = corpus_splits.split_of_faces()
    names = [n for n in computed if n in families and np.any(computed[n])]
    matrix = np.stack([computed[n] for n in names])
    index = {n: i for i, n in enumerate(names)}
    members = collections.defaultdict(list)
    for n in names:
        members[families[n]].append(n)
    tested = hits = 0
    for n in names:
        if split[n] != "test" or len(members[families[n]]) < 2:
            continue
        scores = matrix @ matrix[index[n]]
        scores[index[n]] = -np.inf
        nearest = np.argsort(-scores)[:5]
        tested += 1
        hits += any(families[names[k]] == families[n] for k in nearest)
    lines = [f"Similarity: {tested} test-family faces with a sibling; another face of the family among "
             f"the 5 nearest of {len(names)} corpus faces for {100 * hits / max(1, tested):.1f} %.", "",
             "| font | 5 nearest (score) |", "|---|---|"]
    for n in WELL_KNOWN:
        if n not in index:
            continue
        scores = matrix @ matrix[index[n]]
        scores[index[n]] = -np.inf
        nearest = np.argsort(-scores)[:5]
        lines.append(f"| {n} | " + ", ".join(f"{names[k]} ({scores[k]:.2f})" for k in nearest) + " |")
    return lines


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    args = parser.parse_args(argv)
    torch.set_num_threads(2)
    net = export_networks.load_net(args.work)
    out = ["| pictures | count | top-1 | top-5 |", "|---|---|---|---|"]
    for title, file in (("degraded, other seed", "lines_heldout.bin"), ("clean", "lines_clean.bin")):
        count, top1, top5 = recognition(net, os.path.join(args.work, file))
        out.append(f"| {title} | {count} | {100 * top1:.1f} % | {100 * top5:.1f} % |")
    out.append("")
    if os.path.exists(os.path.join(args.work, "module-cache")):
        out += similarity(args.work)
    print("\n".join(out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
