#!/usr/bin/python3
"""Fits the class vote that stands beside the linear class rows and writes its data file.

    training/run fit_class_vote [--work DIR] [--linear-settings FILE] [--no-head]
                                [--write [--to FILE] [--head-to FILE]] [--report FILE]

The module's linear rows (data/classification_weights.tsv) class a font from its 96 measured
features. The vote classes it by what it looks like: the k faces of the shipped similarity table
(data/NQ_sim_meta_fs.bin and NQ_sim_fea_fs.bin) whose similarity vectors are nearest to the
font's (dot product), each weighted exp((s - s_max) / T), give every class the weighted share of
them that has it (its support, 0 to 1). Per class a rule joins both: the class is set when

    (the linear row sets it and support >= low) or support >= high

so a low floor vetoes a linear class no look-alike shares, and a high one sets a class the row
missed when the look-alikes agree. (low 0, high inf) is the linear row alone.

The fit: every labelled corpus face of the validation families (vectors from DIR/module-cache,
which make_tables.py leaves there; features from DIR/features.tsv) asks the table with its own
family left out, so the support is what an unseen design gets; its linear class is the row of a
fold that did not see its family (the folds, losses and thresholds of fit_classification.py,
whose chosen settings --linear-settings reads: the lines that script prints first, or its
--report file). Only decorative, handmade, script and slab serif get a rule: for every k and T of
the grid, each one's rule is the one with the best F-beta over those faces (beta as
fit_classification.py uses it) among the rules that give the class to no more faces it
contradicts, and to no fewer faces whose primary class it is, than the row does; the k and T with
the best sum over the classes are kept. The validation families hold few slab serif and handmade
designs (7 and 22 faces), but the training families cannot stand in: the similarity network learnt
their faces' classes (train_similarity_top.py --class-weight), so there the look-alikes agree
with the labels more than they do for a design nobody labelled, and rules chosen on them trust
the vote too far (slab serif 0.21 / 0.69 on the test families against 0.40 / 0.62). The test
families' figures follow: the shipped rows, table faces of the query's family left out.

The class head (class_head.py) reads the same vectors: a small network fitted on the faces of
the training families gives each class a probability p. Its rules are chosen as the vote's, on
the same faces, with the evidence (1 - w) * support + w * p in place of the support and the
head's weight w chosen per class from WEIGHTS, for every class (the constraints keep the primary
classes and contradictions at least as the rows have them). --no-head leaves it out.

--write writes data/similarity_table_classes.tsv (or --to FILE): the header (k, temperature,
one rule line per class, one head rule line per class) and the classes of every table face as a
bit mask (bit n for class n of the label table), in table order; and the head to
data/NQ_class_head.dnm (or --head-to FILE). Run it again whenever the shipped pair, the
similarity network or the class rows change.
"""
import sys
import argparse
import math
import os
import re

import numpy as np

from fontrix_training import fit_classification as linear
from fontrix_training import make_tables
from fontrix_training.corpus import splits as corpus_splits
from fontrix_training import DATA, WORK

OUT = os.path.join(DATA, "similarity_table_classes.tsv")
HEAD_OUT = os.path.join(DATA, "NQ_class_head.dnm")
WEIGHTS = (0.0, 0.25, 0.5, 0.75, 1.0)  # the head's share of the evidence
CLASSES = linear.CLASSES
NEIGHBOURS = (5, 10, 20, 40)
TEMPERATURES = (0.02, 0.05, 0.1, 0.2)
# The classes the vote may change: the finer ones the linear rows tell worst. Monospace, sans
# serif and serif stay the rows' own, so the primary-class and contradiction figures, which
# they carry, move only as far as the finer classes move them.
VOTED = ("fs_decorative", "fs_handmade", "fs_script", "fs_slab_serif")
STEPS = [round(0.05 * i, 2) for i in range(21)]
NEVER = math.inf


def read_pair(data=DATA):
    """(identifiers, unique names, vectors) of the shipped similarity pair, in table order."""
    meta = make_tables.read_meta(os.path.join(data, "NQ_sim_meta_fs.bin"))
    vectors = np.fromfile(os.path.join(data, "NQ_sim_fea_fs.bin"), "<f4").reshape(-1, make_tables.DIM)
    if len(meta) != len(vectors):
        raise ValueError(f"the shipped pair holds {len(meta)} meta records and {len(vectors)} vectors")
    return [g[0] for g in meta], [g[3] for g in meta], vectors


def class_masks(names, face_labels):
    """(faces, 8) booleans: the labelled classes of each face; a face without labels has none."""
    return np.array([[c in face_labels.get(n, ()) for c in CLASSES] for n in names], dtype=bool)


def support(scores, masks, k, temperature):
    """(queries, 8) support of every class: the classes of each query's k best-scoring voters,
    weighted exp((s - s_max) / T). Voters scored -inf are left out (they never win a place
    while k others are left)."""
    k = min(k, scores.shape[1])
    best = np.argpartition(-scores, k - 1, axis=1)[:, :k]
    s = np.take_along_axis(scores, best, 1).astype(np.float64)
    top = s.max(1, keepdims=True)
    w = np.where(np.isfinite(s), np.exp((s - top) / temperature), 0.0)
    return np.einsum("nk,nkc->nc", w, masks[best].astype(np.float64)) / w.sum(1, keepdims=True)


def combine(linear_bits, votes, rules):
    """The classes the rule sets: (linear and support >= low) or support >= high, per class."""
    low = np.array([r[0] for r in rules])
    high = np.array([r[1] for r in rules])
    return (linear_bits & (votes >= low)) | (votes >= high)


def f_beta(predicted, actual, beta):
    return linear.f_score(predicted, actual, beta)


def fit_rule(votes, linear_bits, actual, beta, contradicting, primary):
    """(F-beta, low, high) of the best rule for one class that gives the class to no more faces it
    contradicts (`contradicting`) than the linear row does, and to no fewer faces whose primary
    class it is (`primary`); the linear row alone unless such a rule does better."""
    best = (f_beta(linear_bits, actual, beta), 0.0, NEVER)
    allowed = np.sum(linear_bits & contradicting)
    needed = np.sum(linear_bits & primary)
    for low in STEPS:
        kept = linear_bits & (votes >= low)
        for high in STEPS[STEPS.index(low):]:
            predicted = kept | (votes >= high)
            if np.sum(predicted & contradicting) > allowed or np.sum(predicted & primary) < needed:
                continue
            f = f_beta(predicted, actual, beta)
            if f > best[0] + 1e-9:
                best = (f, low, high)
    return best


def contradicting(targets, primaries):
    """(faces, 8) booleans: giving the class to the face would contradict its primary class."""
    bad = np.zeros(targets.shape, dtype=bool)
    for i, p in enumerate(primaries):
        for c in linear.CONTRADICTIONS.get(CLASSES[p], ()):
            bad[i, CLASSES.index(c)] = not targets[i, CLASSES.index(c)]
    return bad


def fit(votes, linear_bits, targets, bad, primary):
    """(summed F-beta, k, T, rules): the neighbours and temperature whose per-class rules do best
    over these faces. `votes` maps (k, T) to the faces' support. Only the finer classes vote."""
    best = None
    for (k, temperature), support_of in votes.items():
        fits = [fit_rule(support_of[:, c], linear_bits[:, c], targets[:, c], beta_of(n), bad[:, c],
                         primary[:, c])
                if n in VOTED else (f_beta(linear_bits[:, c], targets[:, c], beta_of(n)), 0.0, NEVER)
                for c, n in enumerate(CLASSES)]
        total = sum(f for f, _, _ in fits)
        if best is None or total > best[0] + 1e-9:
            best = (total, k, temperature, [(low, high) for _, low, high in fits])
    return best


def fit_head_rules(probabilities, votes, linear_bits, targets, bad, primary):
    """(low, high, weight) per class: the head's share of the evidence and the rule over it that
    do best, under fit_rule's constraints."""
    rules = []
    for c, name in enumerate(CLASSES):
        best = None
        for w in WEIGHTS:
            f, low, high = fit_rule((1 - w) * votes[:, c] + w * probabilities[:, c], linear_bits[:, c], targets[:, c],
                                    beta_of(name), bad[:, c], primary[:, c])
            if best is None or f > best[0] + 1e-9:
                best = (f, low, high, w)
        rules.append(best[1:])
    return rules


def combine_head(linear_bits, votes, probabilities, rules):
    weight = np.array([r[2] for r in rules])
    return combine(linear_bits, (1 - weight) * votes + weight * probabilities, [r[:2] for r in rules])


def beta_of(name):
    return 2.0 if name in linear.RECALL_FIRST else 1.0


def read_linear_settings(path):
    """class -> (loss, penalty, own-face weight, families alike), from fit_classification.py's
    lines "fs_x: logistic, penalty 0.01, own faces weighted 1, families alike; ..."."""
    settings = {}
    pattern = re.compile(r"^(fs_\w+): (squares|logistic), penalty ([0-9.e+-]+), own faces weighted ([0-9.]+), "
                         r"(families|faces) alike")
    with open(path, encoding="utf-8") as f:
        for line in f:
            m = pattern.match(line)
            if m:
                settings[m[1]] = (m[2], float(m[3]), float(m[4]), m[5] == "families")
    missing = [c for c in CLASSES if c not in settings]
    if missing:
        raise SystemExit(f"{path}: no fit_classification.py setting for {', '.join(missing)}")
    return settings


def held_out_linear(features, targets, families, settings):
    """(faces, 8) linear classes of the given faces, each from a row fitted on the other folds
    with the setting and threshold fit_classification.py chose (its folds, its threshold rule)."""
    mean = features.mean(0)
    scale = features.std(0)
    scale[scale == 0] = 1.0
    x = (features - mean) / scale
    folds, per_family = linear.family_folds(list(families)), linear.family_weights(list(families))
    bits = np.zeros(targets.shape, dtype=bool)
    for c, name in enumerate(CLASSES):
        loss, penalty, boost, alike = settings[name]
        y = targets[:, c].astype(np.float64)
        weights = (per_family if alike else np.ones(len(y))) * np.where(y > 0.5, boost, 1.0)
        scores = np.empty(len(y))
        for k in range(folds.max() + 1):
            held = folds == k
            b, w = linear.fit_row(loss, x[~held], y[~held], penalty, weights[~held])
            scores[held] = b + x[held] @ w
        _, threshold = linear.best_threshold(scores, y > 0.5, beta_of(name))
        bits[:, c] = scores > threshold
    return bits


def read_rows(path):
    """class -> (intercept, weights) of the weights table."""
    rows = {}
    with open(path, encoding="utf-8") as f:
        for line in f:
            fields = line.rstrip("\n").split("\t")
            if fields[0] in CLASSES:
                rows[fields[0]] = (float(fields[1]), np.array([float(v) for v in fields[2:]]))
    return rows


def judge(masks, targets, primaries):
    """Per-class (faces, precision, recall), primary-class share, contradiction share."""
    per_class = []
    for c in range(len(CLASSES)):
        actual = targets[:, c]
        right = np.sum(masks[:, c] & actual)
        per_class.append((int(actual.sum()), right / max(1, masks[:, c].sum()), right / max(1, actual.sum())))
    primary = np.mean([masks[i, p] for i, p in enumerate(primaries)])
    contradicted = 0
    for i, p in enumerate(primaries):
        bad = {CLASSES.index(c) for c in linear.CONTRADICTIONS.get(CLASSES[p], ())} - set(np.flatnonzero(targets[i]))
        contradicted += any(masks[i, c] for c in bad)
    return per_class, primary, contradicted / len(primaries)


def format_rule(low, high):
    return f"{low:g}\t{'inf' if high == NEVER else f'{high:g}'}"


def write_file(path, k, temperature, rules, identifiers, names, masks, head_rules=None):
    with open(path + ".tmp", "w", encoding="utf-8") as f:
        f.write("# The style classes of the shipped similarity table's faces and the class vote fitted on them\n"
                "# (training/run fit_class_vote). rule: class, low, high: the class is set when the linear row\n"
                "# sets it and its support among the k nearest faces is at least low, or the support is at\n"
                "# least high. head_rule: class, low, high, weight: the same with the evidence\n"
                "# (1 - weight) * support + weight * the class head's probability in place of the support.\n"
                "# face: identifier, unique name, class mask (bit n for class n), in table order.\n")
        f.write(f"k\t{k}\ntemperature\t{temperature:g}\n")
        for name, (low, high) in zip(CLASSES, rules):
            f.write(f"rule\t{name}\t{format_rule(low, high)}\n")
        for name, (low, high, weight) in zip(CLASSES, head_rules or ()):
            f.write(f"head_rule\t{name}\t{format_rule(low, high)}\t{weight:g}\n")
        f.write(f"faces\t{len(names)}\n")
        for identifier, name, mask in zip(identifiers, names, masks):
            f.write(f"face\t{identifier}\t{name}\t{sum(1 << c for c in np.flatnonzero(mask))}\n")
    os.replace(path + ".tmp", path)


def read_file(path):
    """(k, temperature, rules, [(identifier, name, mask)]) of a data file written by write_file."""
    k, temperature, rules, faces = None, None, {}, []
    with open(path, encoding="utf-8") as f:
        for line in f:
            fields = line.rstrip("\n").split("\t")
            if fields[0] == "k":
                k = int(fields[1])
            elif fields[0] == "temperature":
                temperature = float(fields[1])
            elif fields[0] == "rule":
                rules[fields[1]] = (float(fields[2]), float(fields[3]))
            elif fields[0] == "face":
                faces.append((fields[1], fields[2], int(fields[3])))
    return k, temperature, [rules[c] for c in CLASSES], faces


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", default=WORK, help="features.tsv and module-cache (default %(default)s)")
    parser.add_argument("--linear-settings", help="fit_classification.py's chosen settings (default WORK/fit-cv.md)")
    parser.add_argument("--data", default=DATA, help="the data folder with the similarity pair (default %(default)s)")
    parser.add_argument("--write", action="store_true", help="write the data file")
    parser.add_argument("--to", default=OUT, help="where --write writes (default %(default)s)")
    parser.add_argument("--head-to", default=HEAD_OUT, help="where --write writes the class head (default %(default)s)")
    parser.add_argument("--no-head", action="store_true", help="no class head: the vote's rules alone")
    parser.add_argument("--report", help="write the figures as Markdown here")
    args = parser.parse_args(argv)

    face_labels, face_family = corpus_splits.read_labels()
    split_of = corpus_splits.split_of_faces()
    identifiers, table_names, table = read_pair(args.data)
    table_masks = class_masks(table_names, face_labels)
    unlabelled = [n for n, m in zip(table_names, table_masks) if not m.any()]
    if unlabelled:
        print(f"{len(unlabelled)} table faces have no label and vote for no class: {' '.join(unlabelled[:5])}")
    table_family = np.array([corpus_splits.family_key(face_family.get(n, n)) for n in table_names])

    vectors = make_tables.read_cache(os.path.join(args.work, "module-cache"))
    names, features = linear.read_features(os.path.join(args.work, "features.tsv"))
    keep = [i for i, n in enumerate(names) if face_labels.get(n) and n in vectors and np.any(vectors[n])]
    names = [names[i] for i in keep]
    features = features[keep]
    split = np.array([split_of[n] for n in names])
    targets = class_masks(names, face_labels)
    primaries = [CLASSES.index(face_labels[n][0]) for n in names]
    family = np.array([corpus_splits.family_key(face_family[n]) for n in names])
    fitted, test = (split == "train") | (split == "validation"), split == "test"
    print(f"{len(names)} labelled faces with features and vectors: {fitted.sum()} to fit on, {test.sum()} test; "
          f"{len(table_names)} table faces vote", flush=True)

    scores = np.stack([vectors[n] for n in names]) @ table.T
    scores[family[:, None] == table_family[None, :]] = -np.inf  # a design never votes for itself

    settings = read_linear_settings(args.linear_settings or os.path.join(args.work, "fit-cv.md"))
    held_bits = held_out_linear(features[fitted], targets[fitted], family[fitted], settings)
    rows = read_rows(linear.WEIGHTS)
    shipped_bits = np.stack([rows[c][0] + features @ rows[c][1] > 0.5 for c in CLASSES], axis=1)

    bad = contradicting(targets, primaries)
    # The rules are chosen on the validation families: the similarity network learnt the classes
    # of the training families' faces, so there the look-alikes and the head agree with the labels
    # more than they will on a design nobody labelled.
    chosen = split[fitted] == "validation"
    chosen_bits, chosen_targets = held_bits[chosen], targets[fitted][chosen]
    chosen_bad, chosen_primary = bad[fitted][chosen], np.eye(len(CLASSES), dtype=bool)[primaries][fitted][chosen]
    fitted_primaries = [p for p, f in zip(primaries, fitted) if f]
    chosen_primaries = [p for p, c in zip(fitted_primaries, chosen) if c]
    chosen_scores = scores[fitted][chosen]
    votes = {(k, t): support(chosen_scores, table_masks, k, t) for k in NEIGHBOURS for t in TEMPERATURES}
    _, k, temperature, rules = fit(votes, chosen_bits, chosen_targets, chosen_bad, chosen_primary)
    chosen_votes = votes[(k, temperature)]
    test_primaries = [p for p, t in zip(primaries, test) if t]
    test_votes = support(scores[test], table_masks, k, temperature)
    head = head_rules = None
    if not args.no_head:
        # Only the head needs PyTorch: the rules, the files and bench/class_answers.py do not.
        from fontrix_training import class_head
        face_vectors = np.stack([vectors[n] for n in names])
        head = class_head.fit(face_vectors[split == "train"], targets[split == "train"])
        chosen_head = class_head.probabilities(head, face_vectors[fitted][chosen])
        head_rules = fit_head_rules(chosen_head, chosen_votes, chosen_bits, chosen_targets, chosen_bad, chosen_primary)
        test_head = class_head.probabilities(head, face_vectors[test])
    figures = {"held-out folds: linear rows": judge(held_bits, targets[fitted], fitted_primaries),
               "validation families (rules chosen there): with the vote": judge(
                   combine(chosen_bits, chosen_votes, rules), chosen_targets, chosen_primaries)}
    if head is not None:
        figures["with the head"] = judge(combine_head(chosen_bits, chosen_votes, chosen_head, head_rules),
                                         chosen_targets, chosen_primaries)
    figures.update({"test families: linear rows": judge(shipped_bits[test], targets[test], test_primaries),
                    "vote alone": judge(test_votes >= 0.5, targets[test], test_primaries),
                    "with the vote ": judge(combine(shipped_bits[test], test_votes, rules), targets[test],
                                            test_primaries)})
    if head is not None:
        figures["head alone"] = judge(test_head >= 0.5, targets[test], test_primaries)
        figures["with the head "] = judge(combine_head(shipped_bits[test], test_votes, test_head, head_rules),
                                          targets[test], test_primaries)
    lines = [f"k {k}, temperature {temperature:g}; the rules (class set when the row sets it and the support "
             "is at least low, or the support is at least high):", "", "| class | low | high |", "|---|---|---|"]
    lines += [f"| {name} | {low:g} | {'inf' if high == NEVER else f'{high:g}'} |"
              for name, (low, high) in zip(CLASSES, rules) if name in VOTED]
    if head_rules:
        lines += ["", "The head's rules (its weight w: evidence (1 - w) * support + w * probability):", "",
                  "| class | low | high | w |", "|---|---|---|---|"]
        lines += [f"| {name} | {format_rule(low, high).replace(chr(9), ' | ')} | {w:g} |"
                  for name, (low, high, w) in zip(CLASSES, head_rules)]
    lines += ["", f"Precision / recall. Held-out folds: the {fitted.sum()} faces of the training and validation "
              "families, each judged on a linear row fitted without its fold; validation families: "
              f"{chosen.sum()} faces, rows fitted without their fold, the rules chosen on them; test families: "
              f"{test.sum()} faces, the shipped rows. Table faces of the face's own family never vote.", "",
              "| class | faces (validation / test) | " + " | ".join(f.strip() for f in figures) + " |",
              "|---|---|" + "---|" * len(figures)]
    for c, name in enumerate(CLASSES):
        faces = f"{chosen_targets[:, c].sum()} / {figures['vote alone'][0][c][0]}"
        cells = [f"{per[c][1]:.2f} / {per[c][2]:.2f}" for per, _, _ in figures.values()]
        lines.append(f"| {name} | {faces} | " + " | ".join(cells) + " |")
    lines.append("| primary class set / contradicting | | " +
                 " | ".join(f"{100 * p:.1f} % / {100 * x:.1f} %" for _, p, x in figures.values()) + " |")
    print("\n".join(lines))
    if args.report:
        with open(args.report, "w", encoding="utf-8") as f:
            f.write("\n".join(lines) + "\n")
    if args.write:
        write_file(args.to, k, temperature, rules, identifiers, table_names, table_masks, head_rules)
        print(f"wrote {args.to}")
        if head is not None:
            class_head.write(head, args.head_to)
            print(f"wrote {args.head_to}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
