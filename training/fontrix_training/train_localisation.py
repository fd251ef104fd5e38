#!/usr/bin/python3
"""Trains the localisation network on DIR/bands.bin and exports it as NQ_loc_model.dnm.

    training/run train_localisation --work DIR [--steps 3000] [--threads 1]
                                                    [--resume] [--out data]

Every 20th training face is held out. A checkpoint (DIR/locnet.pt) is written every 250 steps
and at the end; --resume goes on from it. At the end the network is written to
OUT/NQ_loc_model.dnm only if build/bin/dnm-run and PyTorch agree on "detections" (relative
error at most 1e-4) for pictures of two widths.
"""
import sys
import argparse
import math
import os
import time

import numpy as np
import torch
import torch.nn.functional as F

from fontrix_training import dnm
from fontrix_training import export_networks
from fontrix_training import images
from fontrix_training import locnet
from fontrix_training import DATA

TOLERANCE = export_networks.TOLERANCE


def batch(pictures, bands, rows, rng):
    """Pictures cut to one random width (the network meets lines of every width), each flipped
    left to right at random (the band does not change)."""
    width = int(rng.integers(64, images.BAND_WIDTH + 1))
    start = int(rng.integers(0, images.BAND_WIDTH - width + 1))
    x = np.ascontiguousarray(pictures[rows, :, start:start + width], np.float32)
    flip = rng.random(len(rows)) < 0.5
    x[flip] = x[flip, :, ::-1]
    return torch.from_numpy(x)[:, None], torch.from_numpy(bands[rows])


def loss_of(out, target):
    return F.smooth_l1_loss(out[:, :2], target, beta=0.02) + 0.01 * F.mse_loss(out[:, 2], torch.ones(len(out)))


def evaluate(net, pictures, bands, rows):
    """Mean error of start and end, in fractions of the picture's height, and the share of
    pictures with both edges within a tenth of the band's height of where they should be."""
    net.eval()
    found = []
    with torch.no_grad():
        for at in range(0, len(rows), 256):
            r = rows[at:at + 256]
            found.append(net(torch.from_numpy(pictures[r].astype(np.float32))[:, None])[:, :2].numpy())
    net.train()
    found, truth = np.concatenate(found), bands[rows]
    height = truth[:, 1] - truth[:, 0]
    close = (np.abs(found - truth) <= 0.1 * height[:, None]).all(1)
    return float(np.abs(found - truth).mean()), float(close.mean())


def export(net, pictures, out_dir):
    net.eval()
    target = os.path.join(out_dir, "NQ_loc_model.dnm")
    dnm.write_model(target + ".tmp", locnet.export(net))
    for width in (images.BAND_WIDTH, 97):
        x = np.ascontiguousarray(pictures[:8, :, :width], np.float32)[:, None]
        with torch.no_grad():
            expected = net(torch.from_numpy(x)).numpy()
        got = export_networks.engine_output(target + ".tmp", "detections", x)
        error = float(np.abs(got - expected).max() / max(1e-12, np.abs(expected).max()))
        if error > TOLERANCE:
            os.unlink(target + ".tmp")
            raise SystemExit(f"NQ_loc_model.dnm: the engine's detections differ from PyTorch's by {error:.2e} "
                             f"at width {width}")
        print(f"width {width}: engine and PyTorch agree on detections to {error:.1e}", flush=True)
    os.replace(target + ".tmp", target)
    print(f"NQ_loc_model.dnm: {os.path.getsize(target)} bytes", flush=True)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--steps", type=int, default=3000)
    parser.add_argument("--batch", type=int, default=64)
    parser.add_argument("--lr", type=float, default=2e-3)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--out", default=DATA)
    args = parser.parse_args(argv)
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)

    labels, bands, pictures = images.read_bands(os.path.join(args.work, "bands.bin"))
    held = labels % 20 == 0
    train_rows, held_rows = np.flatnonzero(~held), np.flatnonzero(held)
    print(f"{len(train_rows)} training pictures, {len(held_rows)} held out", flush=True)

    net = locnet.LocNet()
    optimiser = torch.optim.AdamW(net.parameters(), lr=args.lr, weight_decay=1e-4)
    checkpoint = os.path.join(args.work, "locnet.pt")
    step = 0
    if args.resume and os.path.exists(checkpoint):
        state = torch.load(checkpoint)
        net.load_state_dict(state["net"])
        optimiser.load_state_dict(state["optimiser"])
        step = state["step"]
        print(f"resumed at step {step}", flush=True)
    rng = np.random.default_rng([args.seed, step])

    def save():
        torch.save({"net": net.state_dict(), "optimiser": optimiser.state_dict(), "step": step}, checkpoint + ".tmp")
        os.replace(checkpoint + ".tmp", checkpoint)

    started = time.time()
    net.train()
    while step < args.steps:
        for group in optimiser.param_groups:
            group["lr"] = args.lr * 0.5 * (1 + math.cos(math.pi * step / args.steps))
        x, target = batch(pictures, bands, np.sort(rng.choice(train_rows, args.batch, replace=False)), rng)
        loss = loss_of(net(x), target)
        optimiser.zero_grad()
        loss.backward()
        optimiser.step()
        step += 1
        if step % 250 == 0 or step == args.steps:
            save()
            error, holds = evaluate(net, pictures, bands, held_rows)
            print(f"step {step}/{args.steps} loss {loss.item():.4f} held-out error {error:.4f} of the height, "
                  f"edges close {holds:.3f} {time.time() - started:.0f} s", flush=True)
    export(net, pictures, args.out)
    return 0


if __name__ == "__main__":
    sys.exit(main())
