#!/usr/bin/python3
"""Retrains the top of the similarity trunk (conv6, conv7; with --fixed 4 also conv5) on hard
negatives, over the lower trunk's output of every specimen crop computed once.

    /usr/bin/python3 training/train_similarity_top.py --work DIR --init FILE --save-to DIR2
        [--fixed 5] [--steps 4000] [--pairs 16] [--lr 3e-4] [--mine-every 1000] [--with-validation]

A projection over pool4 cannot pull apart what the trunk's 6 x 6 max has already drawn together;
the last convolutions still see the map before that max. The lower trunk (by default conv1 to
conv5 and its pooling, three quarters of the cost) stays fixed, so its output of every crop
(112 x 6 x 6) is computed once (DIR/simtop/, float16, keyed by a digest of those weights): five crops of every
specimen at the offsets the similarity update uses, and ten more at random offsets for the
training faces.

The loss is the contrastive one of the whole-network stages on the module's own reduction (pair
max, max over five crops, unit length), but its batches are built so that the negatives matter:
each of --pairs seed specimens comes with one of its nearest specimens of another family (the
faces that push a sibling out of the five nearest), mined from the current vectors every
--mine-every steps. A face of another family drawn the same as the seed (evaluate.drawn_alike:
Latin letters shared by two families) is never mined: no vector can tell them apart, and pushing
them apart only teaches noise.

Every --judge-every steps the vectors of every corpus face are computed (the update's crops), and
the figure the report gives, another face of the family among the 5 nearest, is measured on the
validation families; the best state is kept in DIR2/fontnet.pt (the recognition head of FILE
unchanged), for export_networks.py --similarity-from. With --with-validation the validation
families train too (their specimens get random crops as well) and the last step is kept: for a
final model, once a run on the training families alone has chosen the settings.

With --fixed 0 nothing stays fixed: the whole trunk trains on the crops' pixels (held in memory,
not cached), its normalisation statistics kept as they are. A step costs about six times a
step of the top alone, and mining or judging runs the whole trunk over every specimen.
"""
import argparse
import collections
import hashlib
import math
import os
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "corpus"))
import evaluate  # noqa: E402
import fontnet  # noqa: E402
import images  # noqa: E402
import splits as corpus_splits  # noqa: E402
import train_networks  # noqa: E402

RANDOM_CROPS = 10  # further crops of a training specimen, at random offsets
# Specimens whose vectors are nearer than this are checked for being drawn the same.
CLONE_COSINE = 0.98


class TrunkSplit:
    """A network's trunk cut after its first `fixed` convolutions (with their pooling): the lower
    part is computed once (and cached, unless it is empty), the upper part is what training
    changes."""

    def __init__(self, net, fixed=5):
        if not 0 <= fixed < len(fontnet.TRUNK):
            raise ValueError(f"between 0 and {len(fontnet.TRUNK) - 1} convolutions can stay fixed, not {fixed}")
        self.net, self.fixed = net, fixed
        self.layers = list(zip(fontnet.TRUNK, net.convs, net.norms))
        with torch.no_grad():
            self.shape = tuple(self.lower(torch.zeros(1, 1, images.SIDE, images.SIDE)).shape[1:])

    def lower(self, x):
        return self.net.trunk(x, 0, self.fixed)

    def upper(self, x):
        """pool4 from the lower part's output."""
        return F.max_pool2d(self.net.trunk(x, self.fixed), fontnet.POOL4_SIDE).flatten(1)

    def trained_parameters(self):
        return [p for _, conv, norm in self.layers[self.fixed:] for p in (*conv.parameters(), *norm.parameters())]

    def digest(self):
        """A key of the lower part's weights: features cached with other weights are never taken."""
        h = hashlib.sha1(str(self.fixed).encode())
        for _, conv, norm in self.layers[:self.fixed]:
            for value in (*conv.state_dict().values(), *norm.state_dict().values()):
                h.update(value.numpy().tobytes())
        return h.hexdigest()[:12]


def specimen_crop_sets(labels, specimens, name_of, training):
    """(row, crops (5 or 15, 109, 109) float32) of every specimen, rows in key order: the update's
    five crops, then for the faces in `training` RANDOM_CROPS more at random offsets (the same
    offsets on every run)."""
    rng = np.random.default_rng(7)
    at = 0
    for label in labels:
        for strip in specimens[label]:
            crops = [images.specimen_crops(strip)]
            if name_of[label] in training:
                row = images.tiled(strip)
                offsets = rng.integers(0, row.shape[1] - images.SIDE + 1, RANDOM_CROPS)
                crops.append(images.specimen_crops(row, offsets))
            yield at, np.concatenate(crops)
            at += 1


def lower_features(work, split, specimens, name_of, training, log=print):
    """(specimen keys [(name, case)], features float16 (n, 15, 112, 6, 6)) of the specimens
    ({label: (lower, upper)}) of the faces in `name_of` ({label: name}): the first five crops at
    the update's offsets, then RANDOM_CROPS at random offsets for the faces in `training` (zeros
    for the others, which are only ever judged). With nothing fixed, the features are the crops'
    pixels themselves, int8 (n, 15, 1, 109, 109)."""
    labels = [label for label in specimens if label in name_of]
    keys = [(name_of[label], case) for label in labels for case in (0, 1)]
    width = images.CROPS + RANDOM_CROPS
    if split.fixed == 0:
        # The whole trunk trains: its input is the crops' pixels, byte - 128, held as int8 (2.6 GB
        # for the corpus), cut afresh on each run rather than written to disk at twice the size.
        crops = np.zeros((len(keys), width) + split.shape, np.int8)
        for row, pixels in specimen_crop_sets(labels, specimens, name_of, training):
            crops[row, :len(pixels), 0] = pixels
        return keys, crops
    folder = os.path.join(work, "simtop")
    os.makedirs(folder, exist_ok=True)
    # Which faces have random crops is part of the key as well as the weights.
    faces = hashlib.sha1("\n".join(sorted(training)).encode()).hexdigest()[:8]
    path = os.path.join(folder, f"lower-{split.digest()}-{faces}.npy")
    if os.path.exists(path):
        features = np.load(path, mmap_mode="r")
        if features.shape == (len(keys), width) + split.shape:
            return keys, np.asarray(features)
    log(f"lower trunk over the crops of {len(keys)} specimens", flush=True)
    features = np.zeros((len(keys), width) + split.shape, np.float16)
    pending, at, logged, started = [], 0, 0, time.time()

    def flush():
        nonlocal pending
        if not pending:
            return
        x = torch.from_numpy(np.concatenate([c for _, c in pending])[:, None])
        with torch.no_grad():
            y = split.lower(x).numpy().astype(np.float16)
        k = 0
        for row, crops in pending:
            features[row, :len(crops)] = y[k:k + len(crops)]
            k += len(crops)
        pending = []

    for at, crops in specimen_crop_sets(labels, specimens, name_of, training):
        pending.append((at, crops))
        if sum(len(c) for _, c in pending) >= 480:
            flush()
            if at - logged >= 2000:
                logged = at
                log(f"  {at} of {len(keys)} specimens, {time.time() - started:.0f} s", flush=True)
    flush()
    with open(path + ".tmp", "wb") as f:
        np.save(f, features)
    os.replace(path + ".tmp", path)
    return keys, features


def embed(split, features, which, crops=None, batch=128):
    """Unit vectors (len(which), 384) of the specimens `which` over the update's five crops (or
    the given crop indices per specimen, (len(which), 5))."""
    out = []
    for start in range(0, len(which), batch):
        rows = which[start:start + batch]
        if crops is None:
            x = features[rows, :images.CROPS]
        else:
            x = features[rows[:, None], crops[start:start + batch]]
        x = torch.from_numpy(np.asarray(x, np.float32)).flatten(0, 1)
        out.append(fontnet.FontNet.reduce(split.upper(x), len(rows)))
    return torch.cat(out)


class Judge:
    """The report's figure on one split: another face of the family among the 5 nearest of all
    corpus faces, by the sum of the two cases' cosines."""

    def __init__(self, keys, families, split_of, wanted):
        self.row = {key: i for i, key in enumerate(keys)}
        self.names = sorted({n for n, c in keys if (n, 1 - c) in self.row})
        members = collections.Counter(families[n] for n in self.names)
        self.families = np.array([families[n] for n in self.names])
        self.tested = np.array([i for i, n in enumerate(self.names) if split_of[n] == wanted and members[families[n]] >= 2])

    def __call__(self, split, features):
        """(figure, faces tested, the unit vectors of every specimen in key order): the vectors are
        returned so that mining at the same weights need not compute them again."""
        with torch.no_grad():
            every = embed(split, features, np.arange(len(self.row)))
        vectors = torch.cat([every[[self.row[(n, c)] for n in self.names]] for c in (0, 1)], 1)
        scores = vectors[self.tested] @ vectors.t()
        scores[torch.arange(len(self.tested)), torch.from_numpy(self.tested)] = -math.inf
        nearest = scores.topk(5, 1).indices.numpy()
        hits = (self.families[nearest] == self.families[self.tested, None]).any(1)
        return float(hits.mean()), len(self.tested), every


def mine(split, features, train_rows, family_ids, cases, clone, count=10, vectors=None):
    """For each training specimen, up to `count` nearest specimens of the same case and another
    family, clones left out; from the training specimens' `vectors` when the caller has them."""
    if vectors is None:
        with torch.no_grad():
            vectors = embed(split, features, train_rows)
    hard = {}
    for case in (0, 1):
        idx = np.flatnonzero(cases[train_rows] == case)
        v = vectors[idx]
        for start in range(0, len(idx), 1024):
            block = idx[start:start + 1024]
            scores = v[start:start + 1024] @ v.t()
            same = torch.from_numpy(family_ids[train_rows[block]][:, None] == family_ids[train_rows[idx]][None, :])
            scores.masked_fill_(same, -math.inf)
            top = scores.topk(min(count * 2, len(idx)), 1)
            order, near = top.indices.numpy(), top.values.numpy()
            for i, k in enumerate(block):
                # Faces drawn the same have all but the same vector: only those are compared.
                kept = [idx[j] for j, score in zip(order[i], near[i]) if score > -math.inf and
                        (score < CLONE_COSINE or not clone(train_rows[k], train_rows[idx[j]]))]
                hard[k] = kept[:count]
    return hard


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--init", required=True, help="weights of the similarity network to start from")
    parser.add_argument("--save-to", required=True)
    parser.add_argument("--fixed", type=int, default=5, help="convolutions of the trunk that stay fixed (5: conv1 to conv5; 0: none)")
    parser.add_argument("--steps", type=int, default=4000)
    parser.add_argument("--pairs", type=int, default=16, help="seed specimens a step, each with a mined negative")
    parser.add_argument("--lr", type=float, default=3e-4)
    parser.add_argument("--mine-every", type=int, default=1000)
    parser.add_argument("--judge-every", type=int, default=1000)
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--with-validation", action="store_true",
                        help="train on the validation families too, for all --steps (nothing left to judge by)")
    args = parser.parse_args(argv)
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    rng = np.random.default_rng(args.seed)

    state = torch.load(args.init)
    net = fontnet.from_state(state).eval()
    _, family_of = corpus_splits.read_labels()
    split_of = corpus_splits.split_of_faces()
    label_of = {n: i for i, n in enumerate(images.read_names(os.path.join(args.work, "names.txt")))}
    name_of = {label: n for n, label in label_of.items() if n in family_of}
    training = set(images.read_names(os.path.join(args.work, "sim_classes.txt")))
    if args.with_validation:
        training |= {n for n in name_of.values() if split_of.get(n) == "validation"}
    # A memory map: only the pixels used are read.
    specimens = images.read_specimens(os.path.join(args.work, "specimens.bin"))
    split = TrunkSplit(net, args.fixed)
    keys, features = lower_features(args.work, split, specimens, name_of, training)
    # Trained on, the validation families judge nothing: the last step is kept.
    judge = None if args.with_validation else Judge(keys, family_of, split_of, "validation")

    key_family = [corpus_splits.family_key(family_of[n]) for n, _ in keys]
    family_number = {f: i for i, f in enumerate(sorted(set(key_family)))}
    family_ids = np.array([family_number[f] for f in key_family])
    cases = np.array([c for _, c in keys])
    train_rows = np.array([i for i, (n, _) in enumerate(keys) if n in training])
    kin = collections.defaultdict(list)
    for r in train_rows:
        kin[(family_ids[r], cases[r])].append(r)

    alike = {}

    def clone(a, b):
        pair = (min(a, b), max(a, b))
        if pair not in alike:
            alike[pair] = evaluate.drawn_alike(specimens[label_of[keys[a][0]]], specimens[label_of[keys[b][0]]])
        return alike[pair]

    optimiser = torch.optim.AdamW(split.trained_parameters(), lr=args.lr, weight_decay=1e-4)
    started = time.time()
    best = judged = None  # judged: (step, every specimen's vector) of the last judgement
    if judge is None:
        print(f"{len(train_rows)} training specimens, the validation families' among them: "
              f"the last step is kept", flush=True)
    else:
        figure, tested, judged = judge(split, features)
        judged = (0, judged)
        print(f"{len(train_rows)} training specimens, {tested} validation faces with a sibling; "
              f"before: family among the 5 nearest {100 * figure:.1f} % ({time.time() - started:.0f} s)", flush=True)
        best = (figure, 0, {k: v.clone() for k, v in net.state_dict().items()})
    position = {r: i for i, r in enumerate(train_rows)}
    hard, window = {}, []
    for step in range(args.steps):
        if step % args.mine_every == 0:
            t = time.time()
            # Judged at these weights (the first step, or the step after a judgement): the
            # vectors are at hand; with the whole trunk training they take minutes to compute.
            known = judged[1][train_rows] if judged is not None and judged[0] == step else None
            hard = mine(split, features, train_rows, family_ids, cases, clone, vectors=known)
            print(f"step {step}: hard negatives mined in {time.time() - t:.0f} s", flush=True)
        rate = train_networks.learning_rate(step, args.steps, args.lr)
        for group in optimiser.param_groups:
            group["lr"] = rate
        seeds = train_rows[rng.integers(0, len(train_rows), args.pairs)]
        anchors = list(seeds)
        for s in seeds:
            pool = hard.get(position[s]) or [position[s]]
            anchors.append(train_rows[pool[rng.integers(len(pool))]])
        anchors = np.array(anchors)
        positives = np.array([rng.choice([k for k in kin[(family_ids[a], cases[a])] if k != a] or [a])
                              for a in anchors])
        rows = np.concatenate([anchors, positives])
        crops = np.stack([rng.choice(images.CROPS + RANDOM_CROPS, images.CROPS, replace=False) for _ in rows])
        vectors = embed(split, features, rows, crops, batch=len(rows))
        a, p = vectors[:len(anchors)], vectors[len(anchors):]
        logits = a @ p.t() / train_networks.SIM_TEMPERATURE
        # Another pair of the anchor's own family is no negative.
        same = torch.from_numpy(family_ids[anchors][:, None] == family_ids[anchors][None, :])
        logits = logits.masked_fill(same & ~torch.eye(len(anchors), dtype=torch.bool), -math.inf)
        y = torch.arange(len(anchors))
        loss = 0.5 * (F.cross_entropy(logits, y) + F.cross_entropy(logits.t(), y))
        optimiser.zero_grad()
        loss.backward()
        optimiser.step()
        window.append((loss.item(), (logits.argmax(1) == y).float().mean().item()))
        if (step + 1) % 50 == 0:
            l, r = np.mean(window, axis=0)
            window = []
            print(f"step {step + 1}/{args.steps} loss {l:.3f} ({r:.2f}) lr {rate:.2e} {time.time() - started:.0f} s",
                  flush=True)
        if judge is not None and ((step + 1) % args.judge_every == 0 or step + 1 == args.steps):
            figure, _, every = judge(split, features)
            judged = (step + 1, every)
            print(f"step {step + 1}: validation family among the 5 nearest {100 * figure:.1f} %", flush=True)
            if figure > best[0]:
                best = (figure, step + 1, {k: v.clone() for k, v in net.state_dict().items()})
    if best is not None:
        net.load_state_dict(best[2])
    os.makedirs(args.save_to, exist_ok=True)
    out = os.path.join(args.save_to, "fontnet.pt")
    torch.save({"net": net.state_dict(), "step": state.get("step", 0), "rec_classes": net.rec.out_features,
                "rec_hidden": net.rec_hidden}, out + ".tmp")
    os.replace(out + ".tmp", out)
    kept = f"step {best[1]} kept (validation {100 * best[0]:.1f} %)" if best else f"step {args.steps} kept"
    print(f"done in {time.time() - started:.0f} s: {kept} in {out}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
