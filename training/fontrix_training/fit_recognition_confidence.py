#!/usr/bin/python3
"""Fits how sure recognition is of its answers and writes data/recognition_confidence.tsv.

    training/run recognition_figures --set fit --absent CORPUS --installed-only --dump fit-lines.jsonl
    training/run recognition_figures --set fit --absent CORPUS --installed-only --disable installed-lines \
        --dump fit-plain.jsonl
    training/run recognition_figures --set fit --absent CORPUS --dump fit-known.jsonl
    training/run fit_recognition_confidence fit-lines.jsonl fit-plain.jsonl [--with-known fit-known.jsonl] [--write]

The pictures are those of recognition_figures's "fit" set: lines PIL draws from the
files of installed fonts, clean and degraded, of faces the recognition network has a class for
and faces it has none for. Every answer of every picture (up to 40) is one example, right when
it shows the picture's face (or an outline twin). A logistic regression over the inputs the
module works out for an answer (recognition/answer_confidence.h: its score against the first,
whether it is first and its lead, the likeness of the font's own line and its gap to the best)
gives the chance that an answer is right. One model is fitted on the answers with lines, one on
the answers of the run without them (the likeness inputs then 0), and one on the answers given
over the known faces as well (recognize without --installed-only), where a picture of a face
that is not installed has a right answer.

sure_at is the first-answer confidence from which "sure" agrees best with the first answer being
right, over the fit pictures: those of installed faces and those of faces that are not installed
(recognition_figures --absent), whose first answer is never right. The figures of the
"test" set (other text, other draws) are what recognition_figures prints: how often
answers of each confidence are right.
"""
import argparse
import json
import math
import os
import sys

import numpy as np
from fontrix_training import DATA

INPUTS = ("bias", "score_ratio", "first", "lead", "likeness", "likeness_gap", "known_first", "known_lead")
MOST_KNOWN_LEAD = 0.05


def log_ratio(a, b):
    return math.log(max(a, 1e-9) / max(b, 1e-9))


def inputs(results, i):
    """The model's inputs for answer i of a picture's results, as the module works them out."""
    r = results[i]
    first, second = results[0]["score"], results[1]["score"] if len(results) > 1 else 0.0
    likeness = r.get("likeness", -1.0)
    best = max((x.get("likeness", -1.0) for x in results), default=-1.0)
    lines = likeness >= 0 and best >= 0
    known_first = lines and i == 0 and r.get("installed") is False
    others = [x.get("likeness", -1.0) for j, x in enumerate(results) if j != i and x.get("installed") is False]
    lead = min(MOST_KNOWN_LEAD, likeness - max(others)) if others else MOST_KNOWN_LEAD
    return [1.0, log_ratio(r["score"], first), 1.0 if i == 0 else 0.0,
            log_ratio(first, second) if i == 0 and second > 0 else 0.0,
            likeness if lines else 0.0, likeness - best if lines else 0.0,
            1.0 if known_first else 0.0, lead if known_first else 0.0]


def examples(path):
    """(inputs, right, first-answer flags) of every answer of every picture in a dump."""
    x, y, first = [], [], []
    with open(path) as f:
        for line in f:
            picture = json.loads(line)
            results = picture["answer"]["results"]
            for i in range(len(results)):
                x.append(inputs(results, i))
                y.append(1.0 if picture["right"][i] else 0.0)
                first.append(i == 0)
    return np.array(x), np.array(y), np.array(first)


def fit(x, y, used, ridge=1e-2, steps=50):
    """Logistic regression by Newton's method over the inputs marked `used` (others stay 0)."""
    columns = [i for i, u in enumerate(used) if u]
    a = x[:, columns]
    w = np.zeros(len(columns))
    for _ in range(steps):
        p = 1 / (1 + np.exp(-np.clip(a @ w, -60, 60)))
        gradient = a.T @ (p - y) + ridge * w
        hessian = (a * (p * (1 - p))[:, None]).T @ a + ridge * np.eye(len(columns))
        step = np.linalg.solve(hessian, gradient)
        w -= step
        if np.abs(step).max() < 1e-9:
            break
    full = np.zeros(len(INPUTS))
    full[columns] = w
    return full


def confidence(x, w):
    return 1 / (1 + np.exp(-np.clip(x @ w, -60, 60)))


def calibration(c, y, edges=(0, 0.2, 0.4, 0.6, 0.8, 0.9, 1.0001)):
    rows = []
    for lo, hi in zip(edges, edges[1:]):
        m = (c >= lo) & (c < hi)
        if m.any():
            rows.append(f"  {lo:.1f}-{min(hi, 1):.1f}: {int(m.sum())} answers, {100 * y[m].mean():.0f} % right "
                        f"(mean confidence {100 * c[m].mean():.0f} %)")
    return "\n".join(rows)


def sure_threshold(c, y):
    """The confidence from which "sure" most often agrees with the first answer being right (the
    midpoint between two neighbouring confidences, of the most agreeing split)."""
    order = np.sort(np.unique(c))
    cuts = np.concatenate([[0.0], (order[1:] + order[:-1]) / 2, [1.0]])
    agree = [np.mean((c >= t) == (y > 0)) for t in cuts]
    return float(cuts[int(np.argmax(agree))])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("with_lines", help="dump of the fit set with the installed lines")
    parser.add_argument("without_lines", help="dump of the fit set with --disable installed-lines")
    parser.add_argument("--with-known", help="dump of the fit set answered over the known faces as well")
    parser.add_argument("--write", action="store_true", help="write the model into the data folder")
    parser.add_argument("--known-only", action="store_true",
                        help="with --write, keep the file's models of installed answers and write with_known only")
    parser.add_argument("--to", default=os.path.join(DATA, "recognition_confidence.tsv"))
    args = parser.parse_args()
    x, y, first = examples(args.with_lines)
    w_lines = fit(x, y, [True] * 6 + [False] * 2)  # installed answers only: the known inputs are 0
    xp, yp, firstp = examples(args.without_lines)
    w_plain = fit(xp, yp, [True] * 4 + [False] * 4)
    c = confidence(x, w_lines)
    sure_at = sure_threshold(c[first], y[first])
    sure_at_plain = sure_threshold(confidence(xp, w_plain)[firstp], yp[firstp])
    print(f"with lines: {len(y)} answers of {int(first.sum())} pictures; weights "
          + ", ".join(f"{n} {v:.3f}" for n, v in zip(INPUTS, w_lines)))
    print(calibration(c, y))
    cp = confidence(xp, w_plain)
    print(f"without lines: {len(yp)} answers; weights " + ", ".join(f"{n} {v:.3f}" for n, v in zip(INPUTS, w_plain)))
    print(calibration(cp, yp))
    sure = c[first] >= sure_at
    print(f"sure_at {sure_at:.3f}: {int(sure.sum())} of {int(first.sum())} first answers sure, "
          f"{100 * y[first][sure].mean():.0f} % of them right; {100 * y[first][~sure].mean():.0f} % of the others")
    sure = confidence(xp, w_plain)[firstp] >= sure_at_plain
    print(f"without lines, sure_at {sure_at_plain:.3f}: {int(sure.sum())} of {int(firstp.sum())} first answers "
          f"sure, {100 * yp[firstp][sure].mean():.0f} % of them right; "
          f"{100 * yp[firstp][~sure].mean():.0f} % of the others")
    models = [("with_lines", w_lines, sure_at), ("without_lines", w_plain, sure_at_plain)]
    if args.with_known:
        xk, yk, firstk = examples(args.with_known)
        w_known = fit(xk, yk, [True] * len(INPUTS))
        ck = confidence(xk, w_known)
        sure_at_known = sure_threshold(ck[firstk], yk[firstk])
        models.append(("with_known", w_known, sure_at_known))
        print(f"over the known faces: {len(yk)} answers; weights "
              + ", ".join(f"{n} {v:.3f}" for n, v in zip(INPUTS, w_known)))
        print(calibration(ck, yk))
        sure = ck[firstk] >= sure_at_known
        print(f"over the known faces, sure_at {sure_at_known:.3f}: {int(sure.sum())} of {int(firstk.sum())} first "
              f"answers sure, {100 * yk[firstk][sure].mean():.0f} % of them right; "
              f"{100 * yk[firstk][~sure].mean():.0f} % of the others")
    if args.write:
        kept = []
        if args.known_only:
            # The installed fonts' answers keep the confidence they had: only the new model changes.
            with open(args.to) as f:
                kept = [line for line in f if line.startswith(("#", "with_lines", "without_lines"))]
            models = [m for m in models if m[0] == "with_known"]
        with open(args.to, "w") as f:
            f.writelines(kept or ["# How sure recognition is of an answer: written by training/run "
                                  "fit_recognition_confidence\n# from the fit pictures of training/run "
                                  "recognition_figures.\n"])
            for name, w, at in models:
                for n, v in zip(INPUTS, w):
                    f.write(f"{name}\t{n}\t{v:.6f}\n")
                f.write(f"{name}\tsure_at\t{at:.6f}\n")
        print("wrote", args.to, file=sys.stderr)


if __name__ == "__main__":
    main()
