#!/usr/bin/python3
"""Trains the recognition head ("fc_hidden", "fc_rec") on a fixed trunk, over the trunk's pool4
of every crop of the training pictures (pool4_features.py).

    /usr/bin/python3 training/train_head.py --work DIR --init FILE --save-to DIR2
        [--lines lines_more.bin ...] [--hidden N] [--epochs 6] [--loss picture|crop] [--lr 1e-3]

The trunk's forward pass is nearly all of a training step's cost, so with the trunk fixed a pass
over every picture takes minutes: the head can be widened and trained to the end of its
schedule where a whole-network stage would see each picture about once.

--loss picture (the default) trains what the module scores: the log of the mean "prob" over a
picture's ten crops, at the right class. A crop that shows little of the line (a tile of two
letters, the blank end of a short word) then learns to spread its probability rather than to
outvote the others; --loss crop is the whole-network stages' cross-entropy of every crop alone.

--hidden N gives the head a hidden layer of N units (at least 768) that starts by passing pool4
through unchanged (fontnet.FontNet.widen_head), so training starts from the network's own head.
After every pass the head is judged on DIR/lines_validation.bin (pictures of a seed no training
file has, which the report's pictures stay out of), and the best pass is kept: DIR2/fontnet.pt
holds the trunk of FILE with it, for export_networks.py and evaluate.py --recognition-from.
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
import pool4_features  # noqa: E402


def picture_log_prob(logits):
    """log of the mean softmax over each picture's crops: logits (pictures, crops, classes)."""
    return torch.logsumexp(F.log_softmax(logits, 2), 1) - math.log(logits.shape[1])


def loss_of(logits, labels, kind):
    """The training loss of a batch of pictures: logits (pictures, crops, classes)."""
    if kind == "picture":
        return F.nll_loss(picture_log_prob(logits), labels)
    return F.cross_entropy(logits.flatten(0, 1), labels.repeat_interleave(logits.shape[1]))


def judge(net, labels, features, batch=256):
    """(top-1, top-5) of the mean "prob" over each picture's crops, as the module scores."""
    hits = np.zeros(2)
    with torch.no_grad():
        for start in range(0, len(labels), batch):
            x = torch.from_numpy(np.asarray(features[start:start + batch], np.float32))
            prob = torch.softmax(net.rec_scores(x.flatten(0, 1)), 1).view(x.shape[0], x.shape[1], -1).mean(1)
            best = prob.topk(min(5, prob.shape[1]), 1).indices.numpy()
            truth = labels[start:start + batch, None]
            hits += [np.sum(best[:, :1] == truth), np.sum(np.any(best == truth, axis=1))]
    return hits / len(labels)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--init", required=True, help="weights of the network whose trunk is kept")
    parser.add_argument("--save-to", required=True)
    parser.add_argument("--lines", nargs="+", default=["lines_more.bin", "lines_third.bin", "lines_fourth.bin",
                                                       "lines_fifth.bin", "lines_clean_train.bin"])
    parser.add_argument("--validation", default="lines_validation.bin")
    parser.add_argument("--hidden", type=int, default=0, help="hidden units of the head (0: keep FILE's head)")
    parser.add_argument("--epochs", type=int, default=6)
    parser.add_argument("--batch", type=int, default=128, help="pictures a step")
    parser.add_argument("--lr", type=float, default=1e-3)
    parser.add_argument("--loss", choices=("picture", "crop"), default="picture")
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args(argv)
    torch.set_num_threads(args.threads)
    torch.manual_seed(args.seed)
    rng = np.random.default_rng(args.seed)

    rec_classes = images.read_names(os.path.join(args.work, "rec_classes.txt"))
    state = torch.load(args.init)
    net = fontnet.from_state(state)
    if net.rec.out_features != len(rec_classes):
        parser.error(f"{args.init} has {net.rec.out_features} recognition classes, "
                     f"rec_classes.txt {len(rec_classes)}")
    if args.hidden:
        width = net.rec_hidden or fontnet.FEATURES
        if args.hidden < width:
            parser.error(f"--hidden {args.hidden} is narrower than the head's {width} units")
        if args.hidden > width:
            net.widen_head(args.hidden - width, torch.Generator().manual_seed(args.seed))
    net.eval()
    trunk = pool4_features.Trunk(net)
    parts = [pool4_features.line_features(args.work, trunk, f, len(rec_classes)) for f in args.lines]
    labels = np.concatenate([p[0] for p in parts]).astype(np.int64)
    features = np.concatenate([p[1] for p in parts])
    del parts
    val_labels, val_features = pool4_features.line_features(args.work, trunk, args.validation, len(rec_classes))
    val_features = np.asarray(val_features)

    head = [p for name, p in net.named_parameters() if name.startswith(("hidden.", "rec."))]
    optimiser = torch.optim.AdamW(head, lr=args.lr, weight_decay=1e-4)
    steps_per_epoch = len(labels) // args.batch
    total, warm = steps_per_epoch * args.epochs, min(500, steps_per_epoch)
    top1, top5 = judge(net, val_labels, val_features)
    print(f"{len(labels)} training pictures, {len(val_labels)} validation pictures; head {net.rec_hidden or 'none'}; "
          f"before: top-1 {100 * top1:.1f} %, top-5 {100 * top5:.1f} %", flush=True)
    best = (top1, top5, 0, {k: v.clone() for k, v in net.state_dict().items()})
    started, step = time.time(), 0
    for epoch in range(1, args.epochs + 1):
        net.train()
        order = rng.permutation(len(labels))
        window = []
        for k in range(steps_per_epoch):
            rate = args.lr * 0.5 * (1 + math.cos(math.pi * step / total)) * min(1.0, (step + 1) / warm)
            for group in optimiser.param_groups:
                group["lr"] = rate
            chosen = np.sort(order[k * args.batch:(k + 1) * args.batch])
            x = torch.from_numpy(features[chosen].astype(np.float32))
            y = torch.from_numpy(labels[chosen])
            logits = net.rec_scores(x.flatten(0, 1)).view(x.shape[0], x.shape[1], -1)
            loss = loss_of(logits, y, args.loss)
            optimiser.zero_grad()
            loss.backward()
            optimiser.step()
            step += 1
            window.append(loss.item())
            if step % 200 == 0:
                print(f"epoch {epoch} step {step}/{total} loss {np.mean(window):.3f} lr {rate:.2e} "
                      f"{time.time() - started:.0f} s", flush=True)
                window = []
        net.eval()
        top1, top5 = judge(net, val_labels, val_features)
        print(f"epoch {epoch}: validation top-1 {100 * top1:.1f} %, top-5 {100 * top5:.1f} %", flush=True)
        if (top1, top5) > best[:2]:
            best = (top1, top5, epoch, {k: v.clone() for k, v in net.state_dict().items()})
    net.load_state_dict(best[3])
    os.makedirs(args.save_to, exist_ok=True)
    out = os.path.join(args.save_to, "fontnet.pt")
    torch.save({"net": net.state_dict(), "step": state.get("step", 0), "rec_classes": len(rec_classes),
                "rec_hidden": net.rec_hidden}, out + ".tmp")
    os.replace(out + ".tmp", out)
    print(f"done in {time.time() - started:.0f} s: pass {best[2]} kept (validation top-1 {100 * best[0]:.1f} %, "
          f"top-5 {100 * best[1]:.1f} %) in {out}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
