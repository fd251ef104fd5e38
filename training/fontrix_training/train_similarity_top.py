#!/usr/bin/python3
"""Retrains the top of the similarity trunk (conv6, conv7; with --fixed 4 also conv5) so that the
vectors rank faces as the letter-likeness teacher does, over the lower trunk's output of every
specimen crop computed once.

    training/run train_similarity_top --work DIR --init FILE --save-to DIR2
        [--fixed 5] [--steps 3000] [--seeds 16] [--near 3] [--lr 3e-4] [--teacher-scale 4]
        [--near-enough 15] [--mine-every 500] [--judge-every 500] [--teacher LETTERS.npz]

A designer asks which fonts look like this one, not which share its family, so the target is the
teacher's (letter_likeness.py): the Euclidean distance between two faces' drawn letters. A batch
is built around --seeds training faces, each with --near faces drawn from its teacher's 12
nearest training faces and one hard negative: a face the current vectors put among the seed's
nearest that the teacher does not put among its 50 nearest (mined every --mine-every steps).
Within the batch, each face's teacher distribution over the other faces, softmax(-d / scale),
is the target of the vectors' distribution, softmax(score / 0.1) with score the dot product of
the module's 768-value vectors (two cases, each unit length); the loss is their KL divergence.
Faces with no other face within --near-enough teacher units in the batch are no rows of the
loss: far out the teacher's order is little more than ink coverage.

The lower trunk (by default conv1 to conv5 and its pooling, three quarters of the cost) stays
fixed, so its output of every crop (112 x 6 x 6) is computed once (DIR/simtop/, float16, keyed
by a digest of those weights): five crops of every specimen at the offsets the similarity update
uses, and ten more at random offsets for the training faces.

Every --judge-every steps the vectors of every corpus face are computed (the update's crops) and
judged on the validation families: of each face's 10 nearest by the teacher, the share among its
10 nearest by the vectors (over every corpus face). The best state is kept in DIR2/fontnet.pt
(the recognition head of FILE unchanged), for export_networks.py --similarity-from; the report's
figures on the test families are printed at the end.

With --fixed 0 nothing stays fixed: the whole trunk trains on the crops' pixels (held in memory,
not cached), its normalisation statistics kept as they are.

Letter likeness alone puts a slab serif beside a sans of the same skeleton, so two further
signals can teach the vectors the style classes of the labelled training faces (corpus labels):
--kind-penalty P lowers the teacher's target for a pair of faces whose primary classes differ by
a factor exp(-P), and --class-weight W adds W times the class loss of a small head over the
vectors (768 -> 64 -> 8, binary cross-entropy weighted towards the rare classes); --kind-negatives
also mines as hard negatives the near faces of another primary class. The head only
shapes the vectors: the module's own class head is fitted on the finished vectors
(fit_class_vote.py). With either, the kept step is the one with the best sum of agreement and
kind (of the other families' first five, the share with the query's primary class).
"""
import sys
import argparse
import hashlib
import math
import os
import time

import numpy as np
import torch
import torch.nn.functional as F

from fontrix_training import class_head
from fontrix_training import fontnet
from fontrix_training import images
from fontrix_training.corpus import labels as corpus_labels
from fontrix_training import letter_likeness
from fontrix_training.corpus import splits as corpus_splits
from fontrix_training import train_networks

RANDOM_CROPS = 10  # further crops of a training specimen, at random offsets
NEAR_POOL = 12  # a seed's batch companions come from its teacher's nearest training faces
NEAR_ENOUGH = 15.0  # teacher units beyond which its order is not followed
TEACHER_KEEP = 50  # the teacher's neighbours a hard negative must lie beyond


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


def fontconfig_weight(os2):
    """fontconfig's weight (regular 80, bold 200) of OpenType weight classes, as fontconfig maps
    them: "within one weight step" is a difference of at most 30 on this scale."""
    return np.interp(os2, [100, 200, 300, 350, 380, 400, 500, 600, 700, 800, 900, 1000],
                     [0, 40, 50, 55, 75, 80, 100, 180, 200, 205, 210, 215])


class Teacher:
    """The letter-likeness teacher over a set of faces: their centred letter vectors, each face's
    TEACHER_KEEP nearest (indices into `names`, nearest first), distances between any faces."""

    def __init__(self, names, vectors, indices=None):
        self.names = list(names)
        self.row = {n: i for i, n in enumerate(self.names)}
        self.vectors = vectors
        self.indices = indices if indices is not None else letter_likeness.nearest(vectors, TEACHER_KEEP)[0]

    def pair_distances(self, rows):
        """(len(rows), len(rows)) distances between the faces `rows`."""
        return letter_likeness.pair_distances(self.vectors[rows])

    def distances(self, row, others):
        return np.linalg.norm(self.vectors[others] - self.vectors[row], axis=1)

    @classmethod
    def load(cls, work, letters=None, log=print):
        """From DIR/teacher (computed there first if it is not up to date), or from a letters
        file (names, cells, advances) of letter_likeness.py, whose nearest are then computed."""
        near = None
        if letters is None:
            near = letter_likeness.teacher(work, log=log)
            drawing = letter_likeness.drawing_digest(corpus_labels.MANIFEST, letter_likeness.HOST_LIBRARY)
            letters = os.path.join(work, "teacher", f"letters-{drawing}.npz")
        with np.load(letters) as f:
            names = [str(n) for n in f["names"]]
            vectors = letter_likeness.letter_vectors(f["cells"], f["advances"])
        vectors -= vectors.mean(0)  # as the teacher's own search: small norms, little cancellation
        if near is not None and [str(n) for n in near["names"]] == names:
            return cls(names, vectors, near["indices"])
        return cls(names, vectors)


class Faces:
    """The faces both the specimens and the teacher have, with both cases: their specimen rows,
    teacher rows, families, splits, slants and weights, and each face's teacher nearest among them."""

    def __init__(self, keys, teacher, family_of, split_of, manifest, classes_of=None):
        row = {key: i for i, key in enumerate(keys)}
        self.names = sorted(n for n, c in keys if c == 0 and (n, 1) in row and n in teacher.row and n in family_of)
        self.key_rows = np.array([[row[(n, 0)], row[(n, 1)]] for n in self.names])
        self.teacher_rows = np.array([teacher.row[n] for n in self.names])
        family_number = {}
        self.family = np.array([family_number.setdefault(corpus_splits.family_key(family_of[n]), len(family_number))
                                for n in self.names])
        self.split = np.array([split_of.get(n, "") for n in self.names])
        face = {f["unique_name"]: f for f in manifest}
        self.italic = np.array([int(face[n]["italic"]) if n in face else 0 for n in self.names])
        self.weight = fontconfig_weight(np.array([float(face[n]["weight"]) if n in face else 400 for n in self.names]))
        of_teacher_row = np.full(len(teacher.names), -1)
        of_teacher_row[self.teacher_rows] = np.arange(len(self.names))
        self.near = [[j for j in of_teacher_row[teacher.indices[t]] if j >= 0] for t in self.teacher_rows]
        # Style classes (faces, 8) and the primary class's index, -1 for a face without labels.
        classes_of = classes_of or {}
        self.classes = np.array([[c in classes_of.get(n, ()) for c in corpus_labels.CLASSES] for n in self.names],
                                dtype=bool).reshape(len(self.names), len(corpus_labels.CLASSES))
        self.primary = np.array([corpus_labels.CLASSES.index(classes_of[n][0]) if classes_of.get(n) else -1
                                 for n in self.names])

    def rows(self, which):
        return np.flatnonzero(self.split == which)


def face_vectors(split, features, faces, which=None, crops=None):
    """The module's 768-value vectors (len(which), 768) of the faces `which` (default all): the
    two cases' unit vectors side by side, over the update's crops or the given crop indices
    (len(which) * 2, 5), the lower case's first."""
    which = np.arange(len(faces.names)) if which is None else np.asarray(which)
    rows = faces.key_rows[which].reshape(-1)
    return embed(split, features, rows, crops, batch=len(rows) if crops is not None else 128).reshape(len(which), -1)


def judge(vectors, faces, teacher, tested, twin=1.0):
    """The report's figures for the faces `tested` among every face: agreement (of the teacher's
    10 nearest, the share among the vectors' 10 nearest), and of the first five answers of other
    families the share of the query's slant and within one weight step, and how often the first
    is a twin (teacher distance under `twin`) of those that have one."""
    scores = vectors[tested] @ vectors.t()
    scores[torch.arange(len(tested)), torch.from_numpy(tested)] = -math.inf
    nearest = scores.topk(10, 1).indices.numpy()
    agreement = np.mean([len(set(nearest[i]) & set(faces.near[q][:10])) / 10 for i, q in enumerate(tested)])
    scores.masked_fill_(torch.from_numpy(faces.family[tested][:, None] == faces.family[None, :]), -math.inf)
    answers = scores.topk(5, 1).indices.numpy()
    slant = np.mean(faces.italic[answers] == faces.italic[tested, None])
    weight = np.mean(np.abs(faces.weight[answers] - faces.weight[tested, None]) <= 30)
    labelled = (faces.primary[tested, None] >= 0) & (faces.primary[answers] >= 0)
    kind = np.sum(labelled & (faces.primary[answers] == faces.primary[tested, None])) / max(1, labelled.sum())
    twins = hits = 0
    for i, q in enumerate(tested):
        others = [j for j in faces.near[q][:5] if faces.family[j] != faces.family[q]]
        if others and teacher.distances(faces.teacher_rows[q], faces.teacher_rows[others[:1]])[0] < twin:
            twins += 1
            hits += teacher.distances(faces.teacher_rows[q], faces.teacher_rows[answers[i, :1]])[0] < twin
    return {"agreement": agreement, "slant": slant, "weight": weight, "kind": kind,
            "twin_first": hits / max(1, twins), "twins": twins, "faces": len(tested)}


def teacher_figures(faces, teacher, tested):
    """The same figures for the teacher's own order (its agreement is 1 by definition)."""
    scores = torch.full((len(tested), len(faces.names)), -math.inf)
    for i, q in enumerate(tested):  # the teacher's ranks stand in for scores
        order = faces.near[q]
        scores[i, order] = -torch.arange(len(order), dtype=torch.float32)
    out = {}
    scores.masked_fill_(torch.from_numpy(faces.family[tested][:, None] == faces.family[None, :]), -math.inf)
    answers = scores.topk(5, 1).indices.numpy()
    out["slant"] = np.mean(faces.italic[answers] == faces.italic[tested, None])
    out["weight"] = np.mean(np.abs(faces.weight[answers] - faces.weight[tested, None]) <= 30)
    return out


def format_figures(f):
    text = (f"agreement {100 * f['agreement']:.1f} %, other families' first five: slant {100 * f['slant']:.1f} %, "
            f"weight {100 * f['weight']:.1f} %")
    if "kind" in f:
        text += f", kind {100 * f['kind']:.1f} %"
    if "twins" in f:
        text += f"; twin first {100 * f['twin_first']:.1f} % of {f['twins']} ({f['faces']} faces)"
    return text


def mine(vectors, faces, train, count=5, looked=20, kinds=False):
    """For each training face, up to `count` training faces the vectors put among its `looked`
    nearest that the teacher does not put among its TEACHER_KEEP nearest (with `kinds`, or
    whose primary class differs from the face's, both labelled)."""
    position = np.full(len(faces.names), -1)
    position[train] = np.arange(len(train))
    v = vectors[train]
    hard = {}
    for start in range(0, len(train), 1024):
        block = train[start:start + 1024]
        scores = v[start:start + 1024] @ v.t()
        scores[torch.arange(len(block)), torch.arange(start, start + len(block))] = -math.inf
        top = scores.topk(min(looked, len(train) - 1), 1).indices.numpy()
        for i, q in enumerate(block):
            near = set(faces.near[q])
            p = faces.primary[q] if kinds else -1
            hard[q] = [train[j] for j in top[i]
                       if train[j] not in near or (kinds and p >= 0 and 0 <= faces.primary[train[j]] != p)][:count]
    return hard


def batch_faces(rng, seeds, faces, near_train, hard, near):
    """The faces of a batch: each seed, `near` of its teacher's NEAR_POOL nearest training
    faces, and one of its hard negatives; each face once."""
    batch = list(seeds)
    for s in seeds:
        pool = near_train[s][:NEAR_POOL]
        if pool:
            batch += list(rng.choice(pool, min(near, len(pool)), replace=False))
        if hard.get(s):
            batch.append(hard[s][rng.integers(len(hard[s]))])
    return np.array(list(dict.fromkeys(batch)))


def distillation_loss(vectors, distances, scale, temperature=train_networks.SIM_TEMPERATURE, near_enough=NEAR_ENOUGH):
    """Cross-entropy of the vectors' neighbour distribution, softmax(score / temperature), against
    the teacher's, softmax(-distance / scale), over the other faces of the batch; rows whose
    nearest other face is `near_enough` or further count for nothing. None when no row counts."""
    n = len(vectors)
    eye = torch.eye(n, dtype=torch.bool)
    d = torch.as_tensor(distances, dtype=torch.float32).masked_fill(eye, math.inf)
    rows = d.min(1).values < near_enough
    if not rows.any():
        return None
    target = F.softmax(-d[rows] / scale, 1)
    logits = (vectors @ vectors.t() / temperature).masked_fill(eye, -math.inf)[rows]
    log_q = F.log_softmax(logits, 1).masked_fill(eye[rows], 0)
    return -(target * log_q).sum(1).mean()


def kind_distances(distances, primary, penalty, scale):
    """The teacher's distances with `penalty` e-folds (of `scale` units) added between labelled
    faces of different primary classes."""
    differs = (primary[:, None] != primary[None, :]) & (primary[:, None] >= 0) & (primary[None, :] >= 0)
    return distances + penalty * scale * differs


def class_loss(head, weights, vectors, classes, labelled):
    """The class head's loss over the labelled faces of a batch (positives weighted by `weights`);
    None when none is labelled."""
    if not labelled.any():
        return None
    target = torch.as_tensor(classes[labelled], dtype=torch.float32)
    return F.binary_cross_entropy_with_logits(head(vectors[labelled]), target, pos_weight=weights)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--init", required=True, help="weights of the similarity network to start from")
    parser.add_argument("--save-to", required=True)
    parser.add_argument("--fixed", type=int, default=5,
                        help="convolutions of the trunk that stay fixed (5: conv1 to conv5; 0: none)")
    parser.add_argument("--steps", type=int, default=3000)
    parser.add_argument("--seeds", type=int, default=16, help="seed faces a step")
    parser.add_argument("--near", type=int, default=3, help="teacher neighbours of a seed in its batch")
    parser.add_argument("--teacher-scale", type=float, default=4.0, help="teacher units per e-fold of its target")
    parser.add_argument("--near-enough", type=float, default=NEAR_ENOUGH,
                        help="teacher distance beyond which a face's row teaches nothing")
    parser.add_argument("--lr", type=float, default=3e-4)
    parser.add_argument("--mine-every", type=int, default=500)
    parser.add_argument("--judge-every", type=int, default=500)
    parser.add_argument("--teacher",
                        help="a letters file of letter_likeness.py (default: DIR/teacher, made if missing)")
    parser.add_argument("--kind-penalty", type=float, default=0.0,
                        help="e-folds off the teacher's target between faces of different primary classes")
    parser.add_argument("--class-weight", type=float, default=0.0, help="weight of the class head's loss")
    parser.add_argument("--kind-negatives", action="store_true",
                        help="hard negatives also among the near faces of another primary class")
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args(argv)
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    rng = np.random.default_rng(args.seed)
    started = time.time()

    state = torch.load(args.init)
    net = fontnet.from_state(state).eval()
    classes_of, family_of = corpus_splits.read_labels()
    split_of = corpus_splits.split_of_faces()
    label_of = {n: i for i, n in enumerate(images.read_names(os.path.join(args.work, "names.txt")))}
    name_of = {label: n for n, label in label_of.items() if n in family_of}
    training = set(images.read_names(os.path.join(args.work, "sim_classes.txt")))
    specimens = images.read_specimens(os.path.join(args.work, "specimens.bin"))  # a memory map
    split = TrunkSplit(net, args.fixed)
    keys, features = lower_features(args.work, split, specimens, name_of, training)
    teacher = Teacher.load(args.work, args.teacher)
    faces = Faces(keys, teacher, family_of, split_of, corpus_labels.read_manifest(), classes_of)
    train = np.array([i for i, n in enumerate(faces.names) if n in training])
    is_train = np.zeros(len(faces.names), bool)
    is_train[train] = True
    near_train = {q: [j for j in faces.near[q] if is_train[j]] for q in train}
    validation, test = faces.rows("validation"), faces.rows("test")
    print(f"{len(train)} training faces of {len(faces.names)} with a teacher "
          f"({time.time() - started:.0f} s)", flush=True)
    own = format_figures(dict(teacher_figures(faces, teacher, validation), agreement=1))
    print(f"teacher's own order on the validation families: {own}", flush=True)

    kinds = args.kind_penalty > 0 or args.class_weight > 0
    head = class_head.ClassHead(fontnet.FEATURES, len(corpus_labels.CLASSES), dropout=0) \
        if args.class_weight > 0 else None
    head_weights = class_head.positive_weights(faces.classes[train][faces.primary[train] >= 0].mean(0))
    parameters = list(split.trained_parameters()) + (list(head.parameters()) if head else [])
    optimiser = torch.optim.AdamW(parameters, lr=args.lr, weight_decay=1e-4)
    best, every, hard, window = None, None, {}, []

    def measure(step):
        nonlocal every, best
        with torch.no_grad():
            every = face_vectors(split, features, faces)
        figures = judge(every, faces, teacher, validation)
        print(f"step {step}: validation {format_figures(figures)} ({time.time() - started:.0f} s)", flush=True)
        mark = figures["agreement"] + (figures["kind"] if kinds else 0)
        if best is None or mark > best[0]:
            best = (mark, step, {k: v.clone() for k, v in net.state_dict().items()})

    measure(0)
    for step in range(args.steps):
        if step % args.mine_every == 0:
            if every is None:
                with torch.no_grad():
                    every = face_vectors(split, features, faces)
            hard = mine(every, faces, train, kinds=args.kind_negatives)
            every = None
        rate = train_networks.learning_rate(step, args.steps, args.lr)
        for group in optimiser.param_groups:
            group["lr"] = rate
        batch = batch_faces(rng, rng.choice(train, args.seeds, replace=False), faces, near_train, hard, args.near)
        crops = np.stack([rng.choice(images.CROPS + RANDOM_CROPS, images.CROPS, replace=False)
                          for _ in range(2 * len(batch))])
        vectors = face_vectors(split, features, faces, batch, crops)
        distances = teacher.pair_distances(faces.teacher_rows[batch])
        if args.kind_penalty > 0:
            distances = kind_distances(distances, faces.primary[batch], args.kind_penalty, args.teacher_scale)
        loss = distillation_loss(vectors, distances, args.teacher_scale, near_enough=args.near_enough)
        if head is not None:
            classes = class_loss(head, head_weights, vectors, faces.classes[batch], faces.primary[batch] >= 0)
            if classes is not None:
                loss = args.class_weight * classes if loss is None else loss + args.class_weight * classes
        if loss is not None:  # None: no face of the batch had another near it
            optimiser.zero_grad()
            loss.backward()
            optimiser.step()
            window.append(loss.item())
        if (step + 1) % 50 == 0 and window:
            print(f"step {step + 1}/{args.steps} loss {np.mean(window):.3f} ({len(batch)} faces) lr {rate:.2e} "
                  f"{time.time() - started:.0f} s", flush=True)
            window = []
        if (step + 1) % args.judge_every == 0 or step + 1 == args.steps:
            measure(step + 1)
    if best is not None:
        net.load_state_dict(best[2])
    os.makedirs(args.save_to, exist_ok=True)
    out = os.path.join(args.save_to, "fontnet.pt")
    torch.save({"net": net.state_dict(), "step": state.get("step", 0), "rec_classes": net.rec.out_features,
                "rec_hidden": net.rec_hidden}, out + ".tmp")
    os.replace(out + ".tmp", out)
    what = "agreement + kind" if kinds else "agreement"
    kept = f"step {best[1]} kept (validation {what} {100 * best[0]:.1f} %)" if best else f"step {args.steps} kept"
    print(f"done in {time.time() - started:.0f} s: {kept} in {out}", flush=True)
    if len(test):
        with torch.no_grad():
            final = judge(face_vectors(split, features, faces), faces, teacher, test)
        print(f"test families: {format_figures(final)}", flush=True)
        own = format_figures(dict(teacher_figures(faces, teacher, test), agreement=1))
        print(f"test families, the teacher's own order: {own}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
