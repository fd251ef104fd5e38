#!/usr/bin/python3
"""Fits the eight style-class rows of data/classification_weights.tsv.

    /usr/bin/python3 training/fit_classification.py FEATURES.tsv [--write] [--report FILE]

FEATURES.tsv is what `font-features --all` prints with the corpus as the machine's fonts
(training/corpus/with-corpus-fonts build/bin/font-features --all > FEATURES.tsv). Each class
row is a linear regression on 0/1 targets with an L1 penalty (the module decides "score > 0.5"),
fitted by coordinate descent on standardised features and turned back into weights of the raw
features. The penalty and the weight of the class's own faces are chosen per class on the
validation families (best F2 of the "> 0.5" decision: recall weighted over precision); the
final rows are fitted on training and validation families and judged
on the test families. The 31 attribute rows are left as they are.
"""
import argparse
import os
import sys

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "corpus"))
import labels as corpus_labels  # noqa: E402
import splits as corpus_splits  # noqa: E402

WEIGHTS = os.path.join(os.path.dirname(HERE), "data", "classification_weights.tsv")
CLASSES = corpus_labels.CLASSES
PENALTIES = (0.0, 3e-4, 1e-3, 3e-3, 1e-2)
POSITIVE_WEIGHTS = (1.0, 1.5, 2.0, 3.0, 4.0, 8.0)
# Classes a face of the first class should never also be given.
CONTRADICTIONS = {
    "fs_sans_serif": ("fs_serif", "fs_slab_serif", "fs_blackletter", "fs_script"),
    "fs_serif": ("fs_sans_serif", "fs_blackletter"),
    "fs_slab_serif": ("fs_sans_serif", "fs_blackletter", "fs_script"),
    "fs_monospace": ("fs_script", "fs_blackletter"),
    "fs_script": ("fs_monospace", "fs_sans_serif", "fs_slab_serif"),
    "fs_blackletter": ("fs_sans_serif", "fs_monospace", "fs_slab_serif"),
}


def lasso(x, y, penalty, weights=None, sweeps=300, tol=1e-7):
    """min sum_i v_i (y_i - b - x_i w)^2 / (2 sum v) + penalty |w|_1 by coordinate descent,
    with sample weights v (default 1); x standardised. Returns (b, w)."""
    n, p = x.shape
    v = np.ones(n) if weights is None else weights / weights.mean()
    w = np.zeros(p)
    b = np.average(y, weights=v)
    r = y - b
    xv = x * v[:, None]
    squares = (xv * x).sum(0) / n
    for _ in range(sweeps):
        largest = 0.0
        for j in range(p):
            if squares[j] == 0:
                continue
            old = w[j]
            rho = xv[:, j] @ r / n + squares[j] * old
            w[j] = np.sign(rho) * max(abs(rho) - penalty, 0.0) / squares[j]
            if w[j] != old:
                r -= x[:, j] * (w[j] - old)
                largest = max(largest, abs(w[j] - old))
        shift = np.average(r, weights=v)
        b += shift
        r -= shift
        if largest < tol:
            break
    return b, w


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


def f_score(predicted, actual, beta=2.0):
    """F-beta; beta 2 counts recall four times precision: a face's own class missed costs more
    than a neighbouring class given too (contradictions are watched separately)."""
    tp = np.sum(predicted & actual)
    fp = np.sum(predicted & ~actual)
    fn = np.sum(~predicted & actual)
    return (1 + beta * beta) * tp / max(1, (1 + beta * beta) * tp + beta * beta * fn + fp)


def fit_class(x, y, train, validation):
    """(penalty, positive weight, intercept, weights): the L1 penalty and the weight of the
    class's own faces (a rare class is otherwise fitted below 0.5) of best validation F2 of the
    "> 0.5" decision, refitted on training and validation together; x standardised."""
    best = None
    for boost in POSITIVE_WEIGHTS:
        v = np.where(y > 0.5, boost, 1.0)
        for penalty in PENALTIES:
            b, w = lasso(x[train], y[train], penalty, v[train])
            score = f_score((b + x[validation] @ w) > 0.5, y[validation] > 0.5)
            if best is None or score > best[0] + 1e-9:
                best = (score, penalty, boost)
    both = train | validation
    _, penalty, boost = best
    b, w = lasso(x[both], y[both], penalty, np.where(y > 0.5, boost, 1.0)[both])
    return penalty, boost, b, w


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
    parser.add_argument("--report", help="write the evaluation as Markdown here")
    args = parser.parse_args(argv)

    names, features = read_features(args.features)
    face_labels, _ = corpus_splits.read_labels()
    split_of = corpus_splits.split_of_faces()
    keep = [i for i, n in enumerate(names) if face_labels.get(n)]
    names = [names[i] for i in keep]
    features = features[keep]
    split = np.array([split_of[n] for n in names])
    targets = np.array([[1.0 if c in face_labels[n] else 0.0 for c in CLASSES] for n in names])
    primaries = [CLASSES.index(face_labels[n][0]) for n in names]
    train, validation, test = (split == "train"), (split == "validation"), (split == "test")
    print(f"{len(names)} labelled faces measured: {train.sum()} train, {validation.sum()} validation, "
          f"{test.sum()} test", flush=True)

    mean = features[train | validation].mean(0)
    scale = features[train | validation].std(0)
    scale[scale == 0] = 1.0
    x = (features - mean) / scale
    rows, chosen = {}, []
    for c, name in enumerate(CLASSES):
        penalty, boost, b, w = fit_class(x, targets[:, c], train, validation)
        raw = w / scale
        rows[name] = (b - raw @ mean, raw)
        chosen.append(f"{name}: penalty {penalty:g}, own faces weighted {boost:g}, "
                      f"{int(np.count_nonzero(w))} of 96 weights non-zero")
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
        with open(WEIGHTS + ".tmp", "w", encoding="utf-8") as f:
            for line in lines:  # comments and the attribute rows as they are
                label = line.split("\t", 1)[0]
                if label in rows:
                    b, w = rows[label]
                    line = "\t".join([label, f"{b:.9g}"] + [f"{v:.9g}" for v in w]) + "\n"
                f.write(line)
        os.replace(WEIGHTS + ".tmp", WEIGHTS)
    return 0


if __name__ == "__main__":
    sys.exit(main())
