#!/usr/bin/python3
"""Trains the similarity model's projection ("sim_proj", then "pool4") over a fixed trunk, for
what the similarity report asks of the vectors: another face of a face's family among its nearest.

    /usr/bin/python3 training/train_projection.py --work DIR --init FILE --save-to DIR2
        [--epochs 40] [--batch 256] [--lr 3e-4]

The trunk's pool4 is computed once by the engine for both specimens of every corpus face
(DIR/specimens.bin), at the five offsets the similarity update uses and at ten more of each
strip (pool4_features.py keeps them). A face's vector is the module's: per specimen, the
projection of each crop's pool4, pairs reduced by max, the crops by max, the half scaled to
unit length; two faces score the sum of their halves' cosines. Each step pulls a training
face's vector (five of its crops per specimen, drawn at random) towards that of another face of
its family (or, for a face alone in its family, its own at other crops) and away from the
batch's other families, at temperature 0.1.

The projection starts as the identity (the vectors are the trunk's own). After every few passes
it is judged as the report judges the shipped table, on the validation families: for each of
their faces with a sibling, is one among its 5 nearest of all corpus faces, from the update's
own crops. The best is kept: DIR2/fontnet.pt holds FILE's network with it, for
export_networks.py --similarity-from.
"""
import argparse
import collections
import math
import os
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import fontnet  # noqa: E402
import images  # noqa: E402
import pool4_features  # noqa: E402

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus"))
import splits as corpus_splits  # noqa: E402

TEMPERATURE = 0.1
EXTRA_OFFSETS = 10  # crops of each strip beyond the update's five, for training


def specimen_features(work, trunk, log=print):
    """(labels (n,), features float16 (n, 2, 15, 768)): for each face of DIR/specimens.bin, per
    specimen, pool4 at the update's five offsets, then at ten others (fixed by the label)."""
    folder = os.path.join(work, "pool4")
    os.makedirs(folder, exist_ok=True)
    path = os.path.join(folder, f"specimens-{trunk.digest}.npz")
    if os.path.exists(path):
        with np.load(path) as kept:
            return kept["labels"], kept["features"]
    log("specimens: pool4 of every face's crops through the engine", flush=True)
    labels, features, batch = [], [], []

    def flush():
        crops = np.concatenate([c for _, c in batch])
        out = trunk.pool4(crops).reshape(len(batch), 2, images.CROPS + EXTRA_OFFSETS, -1)
        labels.extend(label for label, _ in batch)
        features.append(out)
        batch.clear()

    for label, strips in images.iter_specimens(os.path.join(work, "specimens.bin"), AllLabels()):
        crops = []
        rng = np.random.default_rng(label)
        for strip in strips:
            row = images.tiled(strip)
            offsets = images.crop_offsets(row.shape[1]) + list(
                rng.integers(0, row.shape[1] - images.SIDE + 1, EXTRA_OFFSETS))
            crops.extend(row[:, o:o + images.SIDE] for o in offsets)
        batch.append((label, np.stack(crops)))
        if len(batch) == 64:
            flush()
    if batch:
        flush()
    labels, features = np.array(labels, np.int64), np.concatenate(features)
    with open(path + ".tmp", "wb") as f:
        np.savez(f, labels=labels, features=features)
    os.replace(path + ".tmp", path)
    return labels, features


class AllLabels:
    def __contains__(self, label):
        return True


def face_vectors(net, features):
    """(faces, 768) vectors of crop features (faces, 2, crops, 768), as the update makes them."""
    faces, cases, crops, _ = features.shape
    y = net.project(features.reshape(-1, fontnet.FEATURES)).view(faces, cases, crops, fontnet.FEATURES)
    y = torch.maximum(y[..., 0::2], y[..., 1::2]).amax(2)
    return F.normalize(y, dim=2).flatten(1)


def family_in_nearest(vectors, judged, family, depth=5):
    """The share of the `judged` faces (indices) with another face of their family among their
    `depth` nearest of all the vectors."""
    hits = 0
    for start in range(0, len(judged), 512):
        rows = judged[start:start + 512]
        scores = vectors[rows] @ vectors.T
        scores[np.arange(len(rows)), rows] = -np.inf
        nearest = np.argpartition(-scores, depth, axis=1)[:, :depth]
        hits += np.sum(np.any(family[nearest] == family[rows, None], axis=1))
    return hits / max(1, len(judged))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--init", required=True, help="weights of the similarity network")
    parser.add_argument("--save-to", required=True)
    parser.add_argument("--epochs", type=int, default=40)
    parser.add_argument("--judge-every", type=int, default=2, help="passes between judgements")
    parser.add_argument("--batch", type=int, default=256, help="faces a step")
    parser.add_argument("--lr", type=float, default=3e-4)
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args(argv)
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    rng = np.random.default_rng(args.seed)

    net = fontnet.from_state(torch.load(args.init)).eval()
    trunk = pool4_features.Trunk(net)
    labels, features = specimen_features(args.work, trunk)
    names = images.read_names(os.path.join(args.work, "names.txt"))
    _, family_of = corpus_splits.read_labels()
    split_of = corpus_splits.split_of_faces()
    faces = [names[label] for label in labels]
    number = {}
    family = np.array([number.setdefault(family_of[n], len(number)) for n in faces])
    split = np.array([split_of[n] for n in faces])
    members = collections.defaultdict(list)
    for i, f in enumerate(family):
        members[f].append(i)
    train = np.flatnonzero(split == "train")
    judged = np.array([i for i in np.flatnonzero(split == "validation") if len(members[family[i]]) > 1])
    update_crops = torch.from_numpy(features[:, :, :images.CROPS].astype(np.float32))

    def judge():
        with torch.no_grad():
            return family_in_nearest(face_vectors(net, update_crops).numpy(), judged, family)

    if net.sim_proj is None:
        net.add_projection()
    before = judge()
    print(f"{len(faces)} faces ({len(train)} training, {len(judged)} judged validation faces with a sibling); "
          f"before: family among the 5 nearest for {100 * before:.1f} %", flush=True)
    best = (before, 0, {k: v.clone() for k, v in net.sim_proj.state_dict().items()})
    optimiser = torch.optim.AdamW(net.sim_proj.parameters(), lr=args.lr, weight_decay=0)
    steps_per_epoch = len(train) // args.batch
    total, step, started = steps_per_epoch * args.epochs, 0, time.time()
    every = images.CROPS + EXTRA_OFFSETS

    def crop_sets(rows):
        """Five of each face's fifteen crops per specimen, drawn at random."""
        picks = np.argsort(rng.random((len(rows), 2, every)), axis=2)[:, :, :images.CROPS]
        chosen = features[rows[:, None, None], np.arange(2)[None, :, None], picks]
        return torch.from_numpy(chosen.astype(np.float32))

    for epoch in range(1, args.epochs + 1):
        order = rng.permutation(train)
        window = []
        for k in range(steps_per_epoch):
            rate = args.lr * 0.5 * (1 + math.cos(math.pi * step / total))
            for group in optimiser.param_groups:
                group["lr"] = rate
            anchors = order[k * args.batch:(k + 1) * args.batch]
            partners = np.array([rng.choice([j for j in members[family[i]] if j != i] or [i]) for i in anchors])
            a, p = face_vectors(net, crop_sets(anchors)), face_vectors(net, crop_sets(partners))
            scores = a @ p.T / TEMPERATURE  # each half's cosine, summed
            kin = torch.from_numpy(family[anchors][:, None] == family[anchors][None, :])
            scores = scores.masked_fill(kin & ~torch.eye(len(anchors), dtype=torch.bool), float("-inf"))
            target = torch.arange(len(anchors))
            loss = 0.5 * (F.cross_entropy(scores, target) + F.cross_entropy(scores.T, target))
            optimiser.zero_grad()
            loss.backward()
            optimiser.step()
            step += 1
            window.append(loss.item())
        line = f"epoch {epoch} loss {np.mean(window):.3f} lr {rate:.2e} {time.time() - started:.0f} s"
        if epoch % args.judge_every == 0 or epoch == args.epochs:
            share = judge()
            line += f"; family among the 5 nearest for {100 * share:.1f} %"
            if share > best[0]:
                best = (share, epoch, {k: v.clone() for k, v in net.sim_proj.state_dict().items()})
        print(line, flush=True)
    net.sim_proj.load_state_dict(best[2])
    os.makedirs(args.save_to, exist_ok=True)
    out = os.path.join(args.save_to, "fontnet.pt")
    state = torch.load(args.init)
    torch.save({"net": net.state_dict(), "step": state.get("step", 0), "rec_classes": state["rec_classes"],
                "rec_hidden": net.rec_hidden}, out + ".tmp")
    os.replace(out + ".tmp", out)
    print(f"done in {time.time() - started:.0f} s: pass {best[1]} kept ({100 * best[0]:.1f} % of the judged "
          f"faces with a sibling among their 5 nearest, {100 * before:.1f} % before) in {out}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
