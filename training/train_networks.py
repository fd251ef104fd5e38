#!/usr/bin/python3
"""Trains the network shared by similarity and recognition (fontnet.py) on the CPU.

    /usr/bin/python3 training/train_networks.py --work DIR [--steps N] [--resume]

DIR holds what prepare_training_data.py made: specimens.bin (every corpus face), lines.bin
(pictures of the recognition table's faces), sim_classes.txt and rec_classes.txt. Each step
trains on a batch of recognition crops (cross-entropy over the table's fonts) and a batch of
specimen crop sets of training-split faces (a cosine classifier over (face, case) on the
module's own embedding: pair max, max over five crops, unit length). Specimen crops are taken
at random offsets of the tiled strip, of which the update's five evenly spread ones are a
special case.

A checkpoint (DIR/checkpoint.pt) is written every --save-every steps and at the end; --resume
continues from it with the same schedule. The trained weights end in DIR/fontnet.pt.
"""
import argparse
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


# Cosine classifier with an additive margin: logits = scale * (cos - margin at the target).
SIM_SCALE, SIM_MARGIN = 24.0, 0.15


def read_names(path):
    with open(path, encoding="utf-8") as f:
        return [line.rstrip("\n") for line in f if line.strip()]


class SpecimenSampler:
    """Batches of (face, case) crop sets from the specimens of the similarity classes."""

    def __init__(self, specimens, labels, rng):
        self.strips = []  # (tiled strip, class)
        for cls, label in enumerate(labels):
            if label in specimens:
                for case, strip in enumerate(specimens[label]):
                    self.strips.append((images.tiled(strip), 2 * cls + case))
        self.rng = rng

    def batch(self, count):
        picks = self.rng.integers(0, len(self.strips), count)
        crops = np.empty((count, images.CROPS, 1, images.SIDE, images.SIDE), np.float32)
        targets = np.empty(count, np.int64)
        for i, k in enumerate(picks):
            row, target = self.strips[k]
            offsets = self.rng.integers(0, row.shape[1] - images.SIDE + 1, images.CROPS)
            crops[i, :, 0] = images.specimen_crops(row, offsets)
            targets[i] = target
        return torch.from_numpy(crops), torch.from_numpy(targets)


class LineSampler:
    """Batches of single recognition crops with their font's class."""

    def __init__(self, labels, crops, rng):
        self.labels, self.crops, self.rng = labels, crops, rng

    def batch(self, count):
        records = np.sort(self.rng.integers(0, len(self.labels), count))
        which = self.rng.integers(0, images.LINE_CROPS, count)
        x = self.crops[records, which].astype(np.float32)[:, None] - 128.0
        return torch.from_numpy(x), torch.from_numpy(self.labels[records].astype(np.int64))


def learning_rate(step, steps, peak):
    warm = min(500, steps // 20)
    if step < warm:
        return peak * (step + 1) / warm
    return peak * 0.5 * (1 + math.cos(math.pi * (step - warm) / max(1, steps - warm)))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--steps", type=int, default=8000)
    parser.add_argument("--rec-batch", type=int, default=64)
    parser.add_argument("--sim-batch", type=int, default=16)
    parser.add_argument("--lr", type=float, default=2e-3)
    parser.add_argument("--save-every", type=int, default=250)
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--resume", action="store_true")
    args = parser.parse_args(argv)
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    rng = np.random.default_rng(args.seed)

    rec_classes = read_names(os.path.join(args.work, "rec_classes.txt"))
    sim_classes = read_names(os.path.join(args.work, "sim_classes.txt"))
    all_names = read_names(os.path.join(args.work, "names.txt"))
    index_of = {name: i for i, name in enumerate(all_names)}
    specimens = images.read_specimens(os.path.join(args.work, "specimens.bin"))
    sim = SpecimenSampler(specimens, [index_of[n] for n in sim_classes], rng)
    labels, crops = images.read_lines(os.path.join(args.work, "lines.bin"))
    lines = LineSampler(labels, crops, rng)
    print(f"{len(rec_classes)} recognition classes, {len(labels)} line pictures; "
          f"{len(sim_classes)} similarity faces, {len(sim.strips)} specimens", flush=True)

    net = fontnet.FontNet(len(rec_classes), 2 * len(sim_classes))
    optimiser = torch.optim.AdamW(net.parameters(), lr=args.lr, weight_decay=1e-4)
    checkpoint = os.path.join(args.work, "checkpoint.pt")
    step = 0
    if args.resume and os.path.exists(checkpoint):
        state = torch.load(checkpoint)
        net.load_state_dict(state["net"])
        optimiser.load_state_dict(state["optimiser"])
        step = state["step"]
        rng = np.random.default_rng([args.seed, step])
        sim.rng = lines.rng = rng
        print(f"resumed at step {step}", flush=True)

    def save(path):
        torch.save({"net": net.state_dict(), "optimiser": optimiser.state_dict(), "step": step,
                    "rec_classes": len(rec_classes), "sim_classes": 2 * len(sim_classes)}, path + ".tmp")
        os.replace(path + ".tmp", path)

    net.train()
    started, window = time.time(), []
    while step < args.steps:
        for group in optimiser.param_groups:
            group["lr"] = learning_rate(step, args.steps, args.lr)
        x_rec, y_rec = lines.batch(args.rec_batch)
        x_sim, y_sim = sim.batch(args.sim_batch)
        rec_logits, cosines = net(x_rec, x_sim)
        rec_loss = F.cross_entropy(rec_logits, y_rec)
        sim_logits = SIM_SCALE * (cosines - SIM_MARGIN * F.one_hot(y_sim, cosines.shape[1]))
        sim_loss = F.cross_entropy(sim_logits, y_sim)
        loss = rec_loss + sim_loss
        optimiser.zero_grad()
        loss.backward()
        optimiser.step()
        step += 1
        window.append((rec_loss.item(), sim_loss.item(), (rec_logits.argmax(1) == y_rec).float().mean().item(),
                       (sim_logits.argmax(1) == y_sim).float().mean().item()))
        if step % 50 == 0:
            r, s, ra, sa = np.mean(window, axis=0)
            window = []
            print(f"step {step}/{args.steps} rec {r:.3f} ({ra:.2f}) sim {s:.3f} ({sa:.2f}) "
                  f"lr {optimiser.param_groups[0]['lr']:.2e} {time.time() - started:.0f} s", flush=True)
        if step % args.save_every == 0:
            save(checkpoint)
    save(checkpoint)
    torch.save({"net": net.state_dict(), "rec_classes": len(rec_classes), "sim_classes": 2 * len(sim_classes)},
               os.path.join(args.work, "fontnet.pt"))
    print(f"done: {step} steps in {time.time() - started:.0f} s", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
