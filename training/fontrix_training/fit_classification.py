#!/usr/bin/python3
"""Fits the eight style-class rows of data/classification_weights.tsv.

    training/run fit_classification FEATURES.tsv [--write [--to FILE]] [--report FILE]

FEATURES.tsv is what `font-features --all` prints with the corpus as the machine's fonts
(training/corpus/with-corpus-fonts build/bin/font-features --all > FEATURES.tsv). Each class
row is a linear function of the 96 features; the module sets the class when it is above 0.5.

Per class, the training and validation families are cut into five folds by family; every
setting below is fitted on four folds and scored on the fifth, and the setting and decision
threshold with the best F-beta over the held-out scores of all five folds are kept:
- the loss: least squares on 0/1 targets, or logistic;
- the L2 penalty on standardised features;
- faces weighted alike, or families alike (a family of eighteen weights counts as much as a
  single face: the rows should learn designs, not the few families with many faces);
- the weight of the class's own faces (a rare class is otherwise fitted below any threshold).
Beta is 2 (recall counts four times precision) for monospace, sans serif and serif, the
primary classes of most faces, which a face should not miss; 1 for the finer classes, which
should be as often right as complete. The row is then fitted on all training and validation
families with the kept setting, its threshold moved to 0.5 (a logistic row also scaled by 1/8,
so its scores keep a range like a least-squares row's), turned back into weights of the raw
features and judged on the test families. The 31 attribute rows are left as they are.
"""
import sys
import argparse
import collections
import hashlib
import itertools
import os

import numpy as np

from fontrix_training.corpus import labels as corpus_labels
from fontrix_training.corpus import splits as corpus_splits
from fontrix_training import DATA

WEIGHTS = os.path.join(DATA, "classification_weights.tsv")
CLASSES = corpus_labels.CLASSES
LOSSES = ("squares", "logistic")
PENALTIES = (1e-4, 1e-3, 1e-2, 1e-1, 1.0)
POSITIVE_WEIGHTS = (1.0, 3.0, 10.0)
FOLDS = 5
RECALL_FIRST = ("fs_monospace", "fs_sans_serif", "fs_serif")
LOGISTIC_SCALE = 1 / 8
# Classes a face of the first class should never also be given.
CONTRADICTIONS = {
    "fs_sans_serif": ("fs_serif", "fs_slab_serif", "fs_blackletter", "fs_script"),
    "fs_serif": ("fs_sans_serif", "fs_blackletter"),
    "fs_slab_serif": ("fs_sans_serif", "fs_blackletter", "fs_script"),
    "fs_monospace": ("fs_script", "fs_blackletter"),
    "fs_script": ("fs_monospace", "fs_sans_serif", "fs_slab_serif"),
    "fs_blackletter": ("fs_sans_serif", "fs_monospace", "fs_slab_serif"),
}


def least_squares(x, y, penalty, weights):
    """min sum_i v_i (y_i - b - x_i w)^2 / sum v + penalty |w|^2; x standardised. (b, w)."""
    v = weights / weights.mean()
    n = len(y)
    centre = np.average(x, axis=0, weights=v)
    target = np.average(y, weights=v)
    xc = x - centre
    xv = xc * v[:, None]
    w = np.linalg.solve(xv.T @ xc / n + penalty * np.eye(x.shape[1]), xv.T @ (y - target) / n)
    return target - centre @ w, w


def logistic(x, y, penalty, weights, steps=100, tol=1e-9):
    """min sum_i v_i log-loss(y_i, b + x_i w) / sum v + penalty |w|^2 / 2 by Newton's method,
    each step halved until the objective falls (a nearly separable class would otherwise
    overshoot); x standardised. (b, w)."""
    v = weights / weights.mean()
    n, p = x.shape
    xa = np.hstack([np.ones((n, 1)), x])
    ridge = penalty * np.eye(p + 1)
    ridge[0, 0] = 0.0

    def objective(t):
        z = xa @ t
        return np.mean(v * (np.logaddexp(0, z) - y * z)) + 0.5 * t @ ridge @ t

    theta = np.zeros(p + 1)
    value = objective(theta)
    for _ in range(steps):
        prob = 0.5 * (1 + np.tanh(0.5 * (xa @ theta)))  # the logistic function without overflow
        gradient = xa.T @ (v * (prob - y)) / n + ridge @ theta
        hessian = (xa * (v * prob * (1 - prob))[:, None]).T @ xa / n + ridge
        step = np.linalg.solve(hessian + 1e-10 * np.eye(p + 1), gradient)
        for _ in range(30):
            new = objective(theta - step)
            if new <= value:
                break
            step = step / 2
        else:
            break  # no step lowers the objective: the minimum, to rounding
        theta, value = theta - step, new
        if np.max(np.abs(step)) < tol:
            break
    return theta[0], theta[1:]


def fit_row(loss, x, y, penalty, weights):
    return (logistic if loss == "logistic" else least_squares)(x, y, penalty, weights)


def f_score(predicted, actual, beta=2.0):
    """F-beta; beta 2 counts recall four times precision."""
    tp = np.sum(predicted & actual)
    fp = np.sum(predicted & ~actual)
    fn = np.sum(~predicted & actual)
    return (1 + beta * beta) * tp / max(1, (1 + beta * beta) * tp + beta * beta * fn + fp)


def best_threshold(scores, actual, beta):
    """(F-beta, threshold) of the best decision "score > threshold": every cut between two
    distinct scores is tried; the threshold lies midway between them."""
    order = np.argsort(-scores, kind="stable")
    s, a = scores[order], actual[order]
    tp = np.cumsum(a)
    given = np.arange(1, len(s) + 1)
    b2 = beta * beta
    f = (1 + b2) * tp / np.maximum(1, (1 + b2) * tp + b2 * (a.sum() - tp) + (given - tp))
    cuts = np.flatnonzero(np.append(s[1:] < s[:-1], True))  # the last face of each run of ties
    k = cuts[np.argmax(f[cuts])]
    threshold = (s[k] + s[k + 1]) / 2 if k + 1 < len(s) else s[k] - 1.0
    return float(f[k]), float(threshold)


def family_folds(families, folds=FOLDS):
    """Fold of every face: a hash of its family, so a family is never on both sides."""
    return np.array([int(hashlib.sha1(f.encode("utf-8")).hexdigest(), 16) % folds for f in families])


def family_weights(families):
    """1 / (faces of the face's family): every family weighs one in all."""
    count = collections.Counter(families)
    return np.array([1.0 / count[f] for f in families])


def choose(x, y, folds, per_family, beta):
    """(F-beta, threshold, loss, penalty, positive weight, families alike) of the best setting
    by the held-out scores of every fold."""
    best = None
    for loss, penalty, boost, alike in itertools.product(LOSSES, PENALTIES, POSITIVE_WEIGHTS, (False, True)):
        weights = (per_family if alike else np.ones(len(y))) * np.where(y > 0.5, boost, 1.0)
        scores = np.empty(len(y))
        for k in range(folds.max() + 1):
            held = folds == k
            b, w = fit_row(loss, x[~held], y[~held], penalty, weights[~held])
            scores[held] = b + x[held] @ w
        f, threshold = best_threshold(scores, y > 0.5, beta)
        if best is None or f > best[0] + 1e-9:
            best = (f, threshold, loss, penalty, boost, alike)
    return best


def raw_row(b, w, mean, scale, threshold, factor):
    """(intercept, weights) over the raw features whose score is above 0.5 exactly when the
    standardised row b + x w is above threshold: factor (b + x w - threshold) + 0.5."""
    raw = factor * w / scale
    return 0.5 + factor * (b - threshold) - raw @ mean, raw


def read_features(path):
    """(names, matrix) of the fonts that could be measured."""
    names, rows, seen = [], [], set()
    with open(path, encoding="utf-8") as f:
        header = f.readline().rstrip("\n").split("\t")
        if len(header) != 97:
            raise ValueError(f"{path}: expected a name and 96 features per line")
        for line in f:
            fields = line.rstrip("\n").split("\t")
            if "null" in fields[1:] or fields[0] in seen:
                continue  # not measurable, or a second face of a name (the host finds the first)
            seen.add(fields[0])
            names.append(fields[0])
            rows.append([float(v) for v in fields[1:]])
    return names, np.array(rows)


def evaluate(scores, targets, primaries):
    """Per-class precision and recall, primary-class rate, contradiction rate."""
    masks = scores > 0.5
    lines = ["| class | faces | precision | recall |", "|---|---|---|---|"]
    for c, name in enumerate(CLASSES):
        actual = targets[:, c] > 0.5
        tp = np.sum(masks[:, c] & actual)
        precision = tp / max(1, masks[:, c].sum())
        recall = tp / max(1, actual.sum())
        lines.append(f"| {name} | {int(actual.sum())} | {precision:.3f} | {recall:.3f} |")
    primary_right = np.mean([masks[i, p] for i, p in enumerate(primaries)])
    primary_top = np.mean([np.argmax(scores[i]) == p for i, p in enumerate(primaries)])
    contradicted = 0
    for i, p in enumerate(primaries):
        truth = {CLASSES[c] for c in np.flatnonzero(targets[i] > 0.5)}
        given = {CLASSES[c] for c in np.flatnonzero(masks[i])}
        bad = set(CONTRADICTIONS.get(CLASSES[p], ())) - truth
        contradicted += bool(bad & given)
    return lines, primary_right, primary_top, contradicted / len(primaries)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("features")
    parser.add_argument("--write", action="store_true", help="replace the class rows of the weights table")
    parser.add_argument("--to", default=WEIGHTS, help="write the table here instead (the attribute rows and "
                        "comments still come from data/)")
    parser.add_argument("--report", help="write the evaluation as Markdown here")
    args = parser.parse_args(argv)

    names, features = read_features(args.features)
    face_labels, face_family = corpus_splits.read_labels()
    split_of = corpus_splits.split_of_faces()
    keep = [i for i, n in enumerate(names) if face_labels.get(n)]
    names = [names[i] for i in keep]
    features = features[keep]
    split = np.array([split_of[n] for n in names])
    targets = np.array([[1.0 if c in face_labels[n] else 0.0 for c in CLASSES] for n in names])
    primaries = [CLASSES.index(face_labels[n][0]) for n in names]
    train, validation, test = (split == "train"), (split == "validation"), (split == "test")
    both = train | validation
    print(f"{len(names)} labelled faces measured: {train.sum()} train, {validation.sum()} validation, "
          f"{test.sum()} test", flush=True)

    mean = features[both].mean(0)
    scale = features[both].std(0)
    scale[scale == 0] = 1.0
    x = (features - mean) / scale
    families = [corpus_splits.family_key(face_family[n]) for n in np.array(names)[both]]
    folds, per_family = family_folds(families), family_weights(families)
    rows, chosen = {}, []
    for c, name in enumerate(CLASSES):
        y = targets[both, c]
        beta = 2.0 if name in RECALL_FIRST else 1.0
        f, threshold, loss, penalty, boost, alike = choose(x[both], y, folds, per_family, beta)
        weights = (per_family if alike else np.ones(len(y))) * np.where(y > 0.5, boost, 1.0)
        b, w = fit_row(loss, x[both], y, penalty, weights)
        rows[name] = raw_row(b, w, mean, scale, threshold, LOGISTIC_SCALE if loss == "logistic" else 1.0)
        chosen.append(f"{name}: {loss}, penalty {penalty:g}, own faces weighted {boost:g}, "
                      f"{'families' if alike else 'faces'} alike; held-out F{beta:g} {f:.3f}")
        print(chosen[-1], flush=True)

    scores = np.stack([rows[n][0] + features @ rows[n][1] for n in CLASSES], axis=1)
    table, primary_right, primary_top, contradicted = evaluate(scores[test], targets[test],
                                                               [p for p, t in zip(primaries, test) if t])
    summary = (f"Held-out (test) families: {test.sum()} faces; primary class set (score > 0.5) for "
               f"{100 * primary_right:.1f} %, the highest-scoring class for {100 * primary_top:.1f} %; "
               f"a contradicting class set for {100 * contradicted:.1f} %.")
    print("\n".join(table) + "\n" + summary)
    if args.report:
        with open(args.report, "w", encoding="utf-8") as f:
            f.write("\n".join(chosen) + "\n\n" + "\n".join(table) + "\n\n" + summary + "\n")
    if args.write:
        with open(WEIGHTS, encoding="utf-8") as f:
            lines = f.readlines()
        with open(args.to + ".tmp", "w", encoding="utf-8") as f:
            for line in lines:  # comments and the attribute rows as they are
                label = line.split("\t", 1)[0]
                if label in rows:
                    b, w = rows[label]
                    line = "\t".join([label, f"{b:.9g}"] + [f"{v:.9g}" for v in w]) + "\n"
                f.write(line)
        os.replace(args.to + ".tmp", args.to)
    return 0


if __name__ == "__main__":
    sys.exit(main())
