#!/usr/bin/python3
"""Trains the network shared by similarity and recognition (fontnet.py) on the CPU.

    training/run train_networks --work DIR [--steps N] [--resume]
        [--lines lines.bin lines_clean_train.bin] [--sim-queue 384] [--save-to DIR2]

DIR holds what prepare_training_data.py made: specimens.bin (every corpus face), the picture
files of the recognition classes' faces (--lines), sim_classes.txt and rec_classes.txt. Each step
trains on a batch of recognition crops (cross-entropy over the recognition classes) and a batch
of pairs of specimen crop sets of training-split faces, on the module's own embedding (pair
max, max over five crops, unit length): a contrastive loss pulls each anchor towards its
positive (another face of its family, in the same case, or the same specimen at other offsets)
and away from the batch's other crop sets. This is what the similarity report asks of the
vectors: a face's family among its nearest. Specimen crops are taken at random offsets of the
tiled strip, of which the update's five evenly spread ones are a special case.

A checkpoint (DIR/checkpoint.pt) is written every --save-every steps and at the end; --resume
continues from it with the same schedule. Beside it, DIR/fontnet_trunk.pt holds the trunk and
the recognition head alone (a few MB): copied to training/checkpoints/, it lets a fresh machine
go on with --init. The trained weights end in DIR/fontnet.pt. --save-to puts these three files
in another folder, so a run can branch off without overwriting the one it started from.

With --sim-batch 0 only recognition is trained, with --rec-batch 0 only similarity, in both
cases with the normalisation statistics kept as they are. A recognition step then costs a
fifth of a mixed one (the similarity batch is 120 crops against recognition's 64). The result
is meant for one model alone: the other (and, for recognition, the shipped table computed with
the similarity model) stays with the weights the branch came from (export_networks.py
--recognition-from, --similarity-from).
"""
import sys
import argparse
import collections
import math
import os
import time

import numpy as np
import torch
import torch.nn.functional as F

from fontrix_training import fontnet
from fontrix_training import images

from fontrix_training.corpus import splits as corpus_splits


# Temperature of the contrastive similarity loss over the batch's crop sets.
SIM_TEMPERATURE = 0.1


class SpecimenSampler:
    """Pairs of crop sets for the similarity embedding: an anchor (a face's lower- or upper-case
    specimen at random offsets) and a positive of the same case: another face of the anchor's
    family when it has one, else the same specimen at other offsets."""

    def __init__(self, specimens, labels, families, rng):
        self.strips = []  # (tiled strip, family, case)
        self.by_family = collections.defaultdict(list)
        for label, family in zip(labels, families):
            if label in specimens:
                for case, strip in enumerate(specimens[label]):
                    self.by_family[(family, case)].append(len(self.strips))
                    self.strips.append((images.tiled(strip), family, case))
        self.family_number = {}
        self.rng = rng

    def crops(self, k):
        row = self.strips[k][0]
        offsets = self.rng.integers(0, row.shape[1] - images.SIDE + 1, images.CROPS)
        return images.specimen_crops(row, offsets)

    def batch(self, count):
        """(2 * count, 5, 1, 109, 109): the anchors, then their positives in the same order;
        and the anchors' families as numbers."""
        anchors = self.rng.integers(0, len(self.strips), count)
        x = np.empty((2, count, images.CROPS, 1, images.SIDE, images.SIDE), np.float32)
        families = np.empty(count, np.int64)
        for i, k in enumerate(anchors):
            _, family, case = self.strips[k]
            kin = [j for j in self.by_family[(family, case)] if j != k]
            x[0, i, :, 0] = self.crops(k)
            x[1, i, :, 0] = self.crops(kin[self.rng.integers(len(kin))] if kin else k)
            families[i] = self.family_number.setdefault(family, len(self.family_number))
        return (torch.from_numpy(x.reshape(2 * count, images.CROPS, 1, images.SIDE, images.SIDE)),
                torch.from_numpy(families))


class LineSampler:
    """Batches of single recognition crops with their font's class, drawn evenly from the
    pictures of every lines file (files of other fonts' pictures are skipped)."""

    def __init__(self, files, classes, rng):
        self.files = []  # (labels, crops, records of fonts that are classes)
        for path in files:
            labels, crops = images.read_lines(path)
            self.files.append((labels, crops, np.flatnonzero(labels < classes)))
        self.sizes = np.array([len(records) for _, _, records in self.files])
        self.rng = rng

    def __len__(self):
        return int(self.sizes.sum())

    def batch(self, count):
        picks = np.sort(self.rng.integers(0, len(self), count))
        x = np.empty((count, 1, images.SIDE, images.SIDE), np.float32)
        y = np.empty(count, np.int64)
        start = np.concatenate([[0], np.cumsum(self.sizes)])
        for f, (labels, crops, records) in enumerate(self.files):
            at = np.flatnonzero((picks >= start[f]) & (picks < start[f + 1]))
            chosen = records[picks[at] - start[f]]
            which = self.rng.integers(0, images.LINE_CROPS, len(at))
            x[at, 0] = crops[chosen, which].astype(np.float32) - 128.0
            y[at] = labels[chosen]
        return torch.from_numpy(x), torch.from_numpy(y)


class NegativeQueue:
    """Embeddings of recent steps' crop sets, kept (without gradient) as further negatives for
    the contrastive loss: a batch of 12 pairs alone offers each anchor only 11 other fonts to be
    pushed from. Entries of the anchor's own family are masked, since they are not negatives."""

    def __init__(self, size):
        self.size = size
        self.vectors = torch.empty(0, fontnet.FEATURES // 2)
        self.families = torch.empty(0, dtype=torch.int64)

    def logits(self, anchors, families):
        """(batch, queue) scores of the anchors against the queue, own family at -inf."""
        scores = anchors @ self.vectors.t() / SIM_TEMPERATURE
        return scores.masked_fill(families[:, None] == self.families[None, :], float("-inf"))

    def push(self, vectors, families):
        self.vectors = torch.cat([vectors.detach(), self.vectors])[:self.size]
        self.families = torch.cat([families, self.families])[:self.size]


def learning_rate(step, steps, peak, first=0):
    """The cosine of a run from step 0 to `steps`, after a linear warm-up over the first steps
    of this optimiser (from `first`, where a branch or a later stage began): a fresh Adam's
    first updates are as large as the learning rate in every weight at once, which tore the
    similarity embedding apart when a branch started at full rate."""
    warm = max(1, min(500, steps // 20))
    cosine = peak * 0.5 * (1 + math.cos(math.pi * max(0, step - warm) / max(1, steps - warm)))
    return cosine * min(1.0, (step - first + 1) / warm)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--steps", type=int, default=8000)
    parser.add_argument("--rec-batch", type=int, default=64)
    parser.add_argument("--sim-batch", type=int, default=16, help="crop-set pairs per step")
    parser.add_argument("--lr", type=float, default=1e-3)
    parser.add_argument("--sim-weight", type=float, default=1.0, help="weight of the similarity loss")
    parser.add_argument("--sim-queue", type=int, default=0,
                        help="recent crop sets kept as further similarity negatives (0: the batch's own only)")
    parser.add_argument("--lines", nargs="+", default=["lines.bin"],
                        help="recognition picture files in the work folder, sampled evenly by picture")
    parser.add_argument("--save-every", type=int, default=250)
    parser.add_argument("--save-to", help="folder of the checkpoint and the trained weights (default: --work)")
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--resume-from", metavar="FILE",
                        help="with --resume, the checkpoint to go on from while --save-to has none of its own")
    parser.add_argument("--stop-at", type=int, metavar="STEP",
                        help="stop (with a checkpoint) at this step of a run of --steps steps: the first stage was "
                             "so stopped and then resumed with a shorter schedule")
    parser.add_argument("--init", help="start from the trunk and recognition head saved in this file "
                                       "(a fresh machine's way to go on from training/checkpoints/)")
    args = parser.parse_args(argv)
    if not (args.rec_batch or args.sim_batch):
        parser.error("--rec-batch and --sim-batch are both 0: nothing to train")
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    rng = np.random.default_rng(args.seed)

    rec_classes = images.read_names(os.path.join(args.work, "rec_classes.txt"))
    sim_classes = images.read_names(os.path.join(args.work, "sim_classes.txt"))
    all_names = images.read_names(os.path.join(args.work, "names.txt"))
    index_of = {name: i for i, name in enumerate(all_names)}
    _, family_of = corpus_splits.read_labels()
    # The specimens are 4.7 GB: read only when similarity is trained.
    specimens = images.read_specimens(os.path.join(args.work, "specimens.bin")) if args.sim_batch else {}
    sim = SpecimenSampler(specimens, [index_of[n] for n in sim_classes],
                          [corpus_splits.family_key(family_of[n]) for n in sim_classes], rng)
    lines = LineSampler([os.path.join(args.work, f) for f in args.lines], len(rec_classes), rng)
    queue = NegativeQueue(args.sim_queue)
    print(f"{len(rec_classes)} recognition classes, {len(lines)} line pictures; "
          f"{len(sim_classes)} similarity faces, {len(sim.strips)} specimens", flush=True)

    net = fontnet.FontNet(len(rec_classes))
    save_to = args.save_to or args.work
    os.makedirs(save_to, exist_ok=True)
    checkpoint = os.path.join(save_to, "checkpoint.pt")
    step = first = 0
    resumed = None
    own = os.path.exists(checkpoint)
    if args.resume and (own or args.resume_from):
        resumed = torch.load(checkpoint if own else args.resume_from)
        net = fontnet.from_state(resumed)
        step, first = resumed["step"], resumed.get("first", 0)
        rng = np.random.default_rng([args.seed, step])
        sim.rng = lines.rng = rng
        print(f"resumed at step {step}", flush=True)
    elif args.init:
        state = torch.load(args.init)
        net = fontnet.from_state(state)
        step = first = state["step"]
        print(f"trunk and recognition head from {args.init}, step {step}", flush=True)
    if net.rec.out_features != len(rec_classes):
        parser.error(f"the weights have {net.rec.out_features} recognition classes, "
                     f"rec_classes.txt {len(rec_classes)}")
    optimiser = torch.optim.AdamW(net.parameters(), lr=args.lr, weight_decay=1e-4)
    if resumed:
        optimiser.load_state_dict(resumed["optimiser"])

    def save(path):
        torch.save({"net": net.state_dict(), "optimiser": optimiser.state_dict(), "step": step, "first": first,
                    "rec_classes": len(rec_classes), "rec_hidden": net.rec_hidden}, path + ".tmp")
        os.replace(path + ".tmp", path)
        # Without the optimiser's state: small enough to keep in the repository.
        trunk = os.path.join(save_to, "fontnet_trunk.pt")
        torch.save({"net": net.state_dict(), "step": step, "rec_classes": len(rec_classes),
                    "rec_hidden": net.rec_hidden}, trunk + ".tmp")
        os.replace(trunk + ".tmp", trunk)

    net.train()
    if not (args.sim_batch and args.rec_batch):
        # The normalisation statistics were learnt on batches of recognition and specimen crops
        # together; batches of one kind alone normalise differently (recognition crops alone cost
        # half the right answers at once). They stay as they are, which is also how the exported
        # network normalises.
        net.norms.eval()
    started, window = time.time(), []
    while step < min(args.steps, args.stop_at or args.steps):
        for group in optimiser.param_groups:
            group["lr"] = learning_rate(step, args.steps, args.lr, first)
        x_rec, y_rec = lines.batch(args.rec_batch)
        x_sim, families = sim.batch(args.sim_batch) if args.sim_batch else (None, None)
        if args.rec_batch and args.sim_batch:
            rec_logits, embeddings = net(x_rec, x_sim)
        else:
            rec_logits = net.rec_logits(x_rec) if args.rec_batch else None
            embeddings = net.embedding(x_sim) if args.sim_batch else None
        rec_loss, rec_right, sim_loss, sim_right = torch.zeros(()), 0.0, torch.zeros(()), 0.0
        if args.rec_batch:
            rec_loss = F.cross_entropy(rec_logits, y_rec)
            rec_right = (rec_logits.argmax(1) == y_rec).float().mean().item()
        if args.sim_batch:
            anchors, positives = embeddings[:args.sim_batch], embeddings[args.sim_batch:]
            sim_logits = anchors @ positives.t() / SIM_TEMPERATURE
            y_sim = torch.arange(args.sim_batch)
            sim_loss = 0.5 * (F.cross_entropy(torch.cat([sim_logits, queue.logits(anchors, families)], 1), y_sim) +
                              F.cross_entropy(torch.cat([sim_logits.t(), queue.logits(positives, families)], 1), y_sim))
            sim_right = (sim_logits.argmax(1) == y_sim).float().mean().item()  # the positive ranked first
            if args.sim_queue:
                queue.push(torch.cat([anchors, positives]), torch.cat([families, families]))
        loss = rec_loss + args.sim_weight * sim_loss
        optimiser.zero_grad()
        loss.backward()
        optimiser.step()
        step += 1
        window.append((rec_loss.item(), sim_loss.item(), rec_right, sim_right))
        if step % 50 == 0:
            r, s, ra, sa = np.mean(window, axis=0)
            window = []
            print(f"step {step}/{args.steps} rec {r:.3f} ({ra:.2f}) sim {s:.3f} ({sa:.2f}) "
                  f"lr {optimiser.param_groups[0]['lr']:.2e} {time.time() - started:.0f} s", flush=True)
        if step % args.save_every == 0:
            save(checkpoint)
    save(checkpoint)
    torch.save({"net": net.state_dict(), "rec_classes": len(rec_classes), "rec_hidden": net.rec_hidden},
               os.path.join(save_to, "fontnet.pt"))
    print(f"done: {step} steps in {time.time() - started:.0f} s", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
