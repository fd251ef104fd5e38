#!/usr/bin/python3
"""Judges the trained network on what it did not learn from; prints Markdown for REPORT.md.

    training/run evaluate --work DIR [--recognition-from FILE] [--tables data]
        [--similarity-only]

- Recognition, on pictures drawn with other seeds than training's (DIR/lines_heldout.bin,
  degraded; DIR/lines_clean.bin, clean; DIR/lines_tall.bin, lines in tall pictures and the
  same pictures cut to their band, to see what a localisation network could gain; with a
  localisation network, the tall and the degraded pictures again, cut where it finds the band,
  into DIR/lines_tall_localised.bin and DIR/lines_heldout_localised.bin): the mean
  "prob" over a picture's ten crops, as the module computes it; top-1 and top-5 over the
  recognition classes; and the module's own first answer, after those classes steered a
  similar-font query through the shipped similarity table (--tables, data/ by default).
  Some classes are drawn exactly alike (metric clones with the same outlines); top-1 and top-5
  are also given counting such a twin as right, and counting another cut of the right face's
  design as right (the same width and letters that differ by a few grey levels with spacing
  left aside; a little more when the weight and slant, read from the corpus's font files with
  fc-scan, are the same too).
- Similarity, on the vectors the module itself computed for every corpus face
  (DIR/module-cache, made by make_tables.py): for each face of a test-split family with at
  least two faces, is another face of its family among its 5 nearest (dot product) of all
  corpus faces, and among the faces of a machine with the commonly installed fonts and the
  test families, since the module ranks installed fonts alone; and the nearest neighbours of
  well-known fonts.
"""
import sys
import argparse
import collections
import os
import subprocess

import numpy as np
import torch

from fontrix_training import export_networks
from fontrix_training.corpus import fetch as corpus_fetch
from fontrix_training import images
from fontrix_training import make_tables
from fontrix_training import prepare_training_data
from fontrix_training.corpus import splits as corpus_splits
from fontrix_training import DATA

WELL_KNOWN = ("DejaVuSans", "DejaVuSerif", "LiberationMono", "Cantarell-Regular", "NimbusRoman-Regular",
              "TeXGyreHeros-Regular", "NotoSerif-Regular", "OpenSans-Regular", "Lato-Regular",
              "UnifrakturMaguntia-Book", "GreatVibes-Regular", "RobotoSlab-Regular")


def drawn_alike(a, b):
    """Whether two faces' specimens (lower, upper) are drawn the same: both cases of the same
    width within 3 % and, over the common width, differing by under 4 grey levels on average
    (Liberation Sans and Arimo, STIX and STIX General, the Thai typewriter faces). No picture
    can tell such faces apart."""
    for x, y in zip(a, b):
        wide, narrow = max(x.shape[1], y.shape[1]), min(x.shape[1], y.shape[1])
        if wide - narrow > 0.03 * wide:
            return False
        if np.abs(x[:, :narrow].astype(np.int16) - y[:, :narrow]).mean() >= 4:
            return False
    return True


def class_specimens(work, rec_classes, names):
    """recognition class -> its specimens (lower, upper), from DIR/specimens.bin."""
    index = {n: i for i, n in enumerate(names)}
    class_of = {index[n]: c for c, n in enumerate(rec_classes)}
    return {class_of[label]: strips
            for label, strips in images.iter_specimens(os.path.join(work, "specimens.bin"), set(class_of))}


def twin_classes(specimens, count):
    """For each of `count` recognition classes, the classes drawn the same (drawn_alike)."""
    twins = {c: {c} for c in range(count)}
    drawn = sorted(specimens)
    for i, a in enumerate(drawn):
        for b in drawn[i + 1:]:
            if drawn_alike(specimens[a], specimens[b]):
                twins[a].add(b)
                twins[b].add(a)
    return twins


def width_difference(a, b):
    """How much wider the wider of two faces' specimens is, the larger of both cases (0.01: 1 %)."""
    return max(max(x.shape[1], y.shape[1]) / min(x.shape[1], y.shape[1]) for x, y in zip(a, b)) - 1


# Two faces as wide whose letters differ by less than DESIGN_SHAPE (shape_distance, grey levels)
# show one design, and so do two of the same declared weight and slant under DESIGN_SHAPE_STYLED.
# Measured on the recognition classes: another foundry's cut of the same letters differs by
# 0.5-8 (TeX Gyre Pagella and P052 2.2, CMU Serif and Latin Modern 2.5, STIX and TeX Gyre Termes
# 2.6, DejaVu Sans and Waree's Latin 3.8), whatever weight and slant the fonts declare (CMU's
# roman says medium, Latin Modern's slanted faces say upright); bold cuts and optical sizes of
# one design by 8-14 (TeX Gyre Heros Bold and Nimbus Sans Bold 12.5, Noto Sans and Open Sans
# 12.8), as little as neighbouring weights of one family (Lato Regular and Medium 9.1), which
# only the fonts' own weights tell apart; other designs of one style are 15 and more apart
# (FreeSans and Garuda 15.6, Liberation Serif and Nimbus Roman 26.2).
DESIGN_SHAPE = 8
DESIGN_SHAPE_STYLED = 14
# Weights of one style: book (380) and regular (400) are one, medium (500) and bold (700)
# against extra-bold (800) are not.
DESIGN_WEIGHT = 50
# Widths of one design: condensed cuts are 8-15 % narrower.
DESIGN_WIDTH = 0.03
# Fontconfig's weight constants (fontconfig.h) and the OpenType weights they stand for: its scale
# is uneven (bold 200, extra-bold 205, black 210), so weights are compared on OpenType's.
FONTCONFIG_WEIGHTS = ((0, 100), (40, 200), (50, 300), (55, 350), (75, 380), (80, 400), (100, 500), (180, 600),
                      (200, 700), (205, 800), (210, 900), (215, 1000))
# A specimen column holds ink where a pixel is this much darker than the white ground.
INK = 40
# How far apart the letter pieces of two strips may get in their pairing (see strip_distance).
PIECE_BAND = 8


def letter_pieces(strip):
    """The runs of inked columns of a specimen strip (dark on white): its letters, or letters
    that touch, as (start, end) columns."""
    inked = (255 - strip.astype(np.int16)).max(0) > INK
    edges = np.flatnonzero(np.diff(np.concatenate([[0], inked.astype(np.int8), [0]])))
    return list(zip(edges[::2], edges[1::2]))


def strip_distance(x, y):
    """How much two specimen strips of the same letters differ in the letters themselves, spacing
    left aside: the strips' letter pieces are paired in order, each pair set side by side at its
    left edge on white, and the mean absolute difference over the paired pieces' area is taken
    (grey levels). A piece of one may pair with two touching pieces of the other, since one
    foundry's spacing lets letters touch that another's keeps apart; the pairing of least total
    difference is found by dynamic programming, within PIECE_BAND pieces of the diagonal (strips
    whose piece counts differ by more are not the same letters). Infinite when the pieces cannot
    be paired. Within a run of touching letters the spacing still counts, so the capitals of bold
    serif faces, which touch in long runs, come out further apart than their letters are."""
    a, b = letter_pieces(x), letter_pieces(y)
    x16, y16 = x.astype(np.int16), y.astype(np.int16)
    # Ink (255 - grey) summed over the columns before each column: the part of the longer piece
    # that the shorter one does not cover differs from white by exactly its ink.
    ink_x = np.concatenate([[0], np.cumsum(255 * x.shape[0] - x16.sum(0, dtype=np.int64))])
    ink_y = np.concatenate([[0], np.cumsum(255 * y.shape[0] - y16.sum(0, dtype=np.int64))])

    def difference(i0, i1, j0, j1):
        s0, e0, s1, e1 = a[i0][0], a[i1 - 1][1], b[j0][0], b[j1 - 1][1]
        common = min(e0 - s0, e1 - s1)
        total = int(np.abs(x16[:, s0:s0 + common] - y16[:, s1:s1 + common]).sum())
        total += int(ink_x[e0] - ink_x[s0 + common] + ink_y[e1] - ink_y[s1 + common])
        return float(total), x.shape[0] * max(e0 - s0, e1 - s1)

    n, m = len(a), len(b)
    if n == 0 or abs(n - m) > PIECE_BAND:
        return float("inf")
    best = {(0, 0): (0.0, 0)}  # (pieces of x, pieces of y) paired -> (total difference, area)
    for i in range(n + 1):
        for j in range(m + 1):
            if (i, j) not in best:
                continue
            total, area = best[(i, j)]
            for di, dj in ((1, 1), (2, 1), (1, 2)):
                if i + di <= n and j + dj <= m and abs(i + di - j - dj) <= PIECE_BAND:
                    d, s = difference(i, i + di, j, j + dj)
                    if (i + di, j + dj) not in best or total + d < best[(i + di, j + dj)][0]:
                        best[(i + di, j + dj)] = (total + d, area + s)
    if (n, m) not in best:
        return float("inf")
    total, area = best[(n, m)]
    return total / area


def shape_distance(a, b):
    """strip_distance of two faces' specimens (lower, upper), the larger of both cases."""
    return max(strip_distance(x, y) for x, y in zip(a, b))


def class_styles(rec_classes, fonts):
    """Each recognition class's (OpenType weight, slanted) from fc-scan over the font files
    under `fonts`, matched by PostScript name; None for a class not found. Neighbouring weights
    of one family can differ in their letters as little as two cuts of one design (Lato Regular
    and Medium by 10 grey levels), so the style comes from the fonts themselves."""
    found = {}
    if os.path.isdir(fonts):
        scan = subprocess.run(["fc-scan", "--format", "%{postscriptname}\t%{weight}\t%{slant}\n", fonts],
                              capture_output=True, text=True, check=True).stdout
        for line in scan.splitlines():
            name, weight, slant = (line.split("\t") + ["", "", ""])[:3]
            try:
                found.setdefault(name, (float(np.interp(float(weight), *zip(*FONTCONFIG_WEIGHTS))),
                                        float(slant) > 0))
            except ValueError:  # a variable font's weight is a range: not a single style
                pass
    return [found.get(name) for name in rec_classes]


def table_scores(vectors):
    """The scores of every pair of recognition classes' table vectors (vectors[class], None
    without an entry) as one matrix, NaN where either class has no entry."""
    scores = np.full((len(vectors), len(vectors)), np.nan, np.float32)
    entered = [c for c, v in enumerate(vectors) if v is not None]
    if entered:
        matrix = np.stack([vectors[c] for c in entered])
        scores[np.ix_(entered, entered)] = matrix @ matrix.T
    return scores


def design_classes(twins, styles, specimens):
    """For each recognition class, the classes that show its design: its twins and the classes
    whose specimens (specimens[class]) are as wide within DESIGN_WIDTH and whose letters differ
    from its own (shape_distance) by less than DESIGN_SHAPE, or by less than DESIGN_SHAPE_STYLED
    in the same style (styles[class], from class_styles: weights within DESIGN_WEIGHT, both
    upright or both slanted): another foundry's cut of the same letters. Other faces of the
    family are not the design: a bold, an italic or a condensed width is another face to a
    reader. Also returns the shape_distance of every pair it measured, as {(c, k): distance}
    with c < k."""
    designs = [set(twins[c]) for c in range(len(styles))]
    distances = {}
    drawn = sorted(specimens)
    for i, c in enumerate(drawn):
        for k in drawn[i + 1:]:
            if width_difference(specimens[c], specimens[k]) > DESIGN_WIDTH:
                continue
            styled = (styles[c] is not None and styles[k] is not None
                      and abs(styles[c][0] - styles[k][0]) <= DESIGN_WEIGHT and styles[c][1] == styles[k][1])
            distances[(c, k)] = shape_distance(specimens[c], specimens[k])
            if distances[(c, k)] < (DESIGN_SHAPE_STYLED if styled else DESIGN_SHAPE):
                designs[c].add(k)
                designs[k].add(c)
    return designs, distances


def answers(mean, vectors, count=5):
    """The first `count` fonts the module answers for a picture's mean probabilities when every
    class is an installed font with a table entry (vectors[class], or None without one): the best
    ten classes, of which the first five with an entry steer a similar-font query weighted by
    their probabilities; the answers are the installed fonts nearest that weighted sum."""
    order = np.argsort(-mean, kind="stable")[:10]
    kept = [c for c in order if vectors[c] is not None][:5]
    query = sum(mean[c] * vectors[c] for c in kept)
    entered = [c for c, v in enumerate(vectors) if v is not None]
    scores = np.array([float(vectors[c] @ query) for c in entered])
    return [entered[i] for i in np.argsort(-scores, kind="stable")[:count]]


# What `recognition` measures over a file of line pictures: the count, then the share of them
# each figure holds (in the order of the report's columns), then the wrong first answers.
Recognition = collections.namedtuple("Recognition", [
    "count", "top1", "top5", "top1_twins", "top5_twins", "top1_family", "top1_design", "top5_design",
    "answer", "answer_twins", "answer_design", "answer_top5", "wrong"])


def recognition(net, path, twins, families, batch=64, every=1, first=0, vectors=None, designs=None):
    """A Recognition: pictures, top-1, top-5, top-1 with twins, top-5 with twins, top-1 of the
    family, top-1 and top-5 of the design (designs[class], from design_classes; 0 without), the
    module's first answer right, the same counting twins, the same counting the design, the right
    font among the module's first five answers, the wrong first answers; over the records first,
    first + every, ...
    whose font is a recognition class; "with twins", a class drawn the same as the right one
    counts as right; "of the family", any face of the right one's family (families[class], its
    family key); the module's answers are those `answers` gives from the table's `vectors` (0
    without them); the wrong answers count (right class, class answered) pairs."""
    labels, crops = images.read_lines(path)
    records = np.arange(first, len(labels), every)
    records = records[labels[records] < net.rec.out_features]
    hits = np.zeros(11)
    wrong = collections.Counter()
    with torch.no_grad():
        for start in range(0, len(records), batch):
            chosen = records[start:start + batch]
            x = torch.from_numpy(crops[chosen].astype(np.float32) - 128.0)
            n = x.shape[0]
            logits = net.rec_scores(net.pool4(x.view(-1, 1, images.SIDE, images.SIDE)))
            mean = torch.softmax(logits, 1).view(n, images.LINE_CROPS, -1).mean(1)
            best = mean.topk(5, 1).indices.numpy()
            truth = labels[chosen]
            for k, right in enumerate((best == truth[:, None],
                                       np.array([[b in twins[t] for b in row] for row, t in zip(best, truth)]))):
                hits[2 * k] += np.sum(right[:, 0])
                hits[2 * k + 1] += np.sum(np.any(right, axis=1))
            hits[4] += sum(families[b] == families[t] for b, t in zip(best[:, 0], truth))
            if designs is not None:
                hits[5] += sum(row[0] in designs[t] for row, t in zip(best, truth))
                hits[6] += sum(any(b in designs[t] for b in row) for row, t in zip(best, truth))
            if vectors is not None:
                ranked = [answers(m, vectors) for m in mean.numpy()]
                hits[7] += sum(r[0] == t for r, t in zip(ranked, truth))
                hits[8] += sum(r[0] in twins[t] for r, t in zip(ranked, truth))
                if designs is not None:
                    hits[9] += sum(r[0] in designs[t] for r, t in zip(ranked, truth))
                hits[10] += sum(t in r for r, t in zip(ranked, truth))
            wrong.update((int(t), int(b)) for b, t in zip(best[:, 0], truth) if b not in twins[t])
    return Recognition(len(records), *(hits / max(1, len(records))), wrong)


def table_vectors(data, rec_classes):
    """Each recognition class's vector in the shipped similarity table of `data` (None for a
    class without an entry)."""
    meta = make_tables.read_meta(os.path.join(data, "NQ_sim_meta_fs.bin"))
    vectors = np.fromfile(os.path.join(data, "NQ_sim_fea_fs.bin"), "<f4").reshape(-1, make_tables.DIM)
    if len(meta) != len(vectors):
        raise ValueError(f"{data}: {len(meta)} meta records and {len(vectors)} vectors")
    by_name = {group[3]: vectors[i] for i, group in enumerate(meta)}
    return [by_name.get(name) for name in rec_classes]


# How far down a query's ranking clones are looked for.
CLONE_DEPTH = 60


def similarity(work):
    computed = make_tables.read_cache(os.path.join(work, "module-cache"))
    _, families = corpus_splits.read_labels()
    split = corpus_splits.split_of_faces()
    names = [n for n in computed if n in families and np.any(computed[n])]
    matrix = np.stack([computed[n] for n in names])
    index = {n: i for i, n in enumerate(names)}
    members = collections.defaultdict(list)
    for n in names:
        members[families[n]].append(n)
    tested = [n for n in names if split[n] == "test" and len(members[families[n]]) >= 2]
    # The module ranks installed fonts only: on a machine with the commonly installed faces (the
    # recognition classes) and the test families, a face's candidates are those alone.
    common = set(images.read_names(os.path.join(work, "rec_classes.txt")))
    installed = common | {n for n in names if split[n] == "test"}
    pool = np.array([n in installed for n in names])
    orders = {}
    pooled = 0
    for n in tested:
        scores = matrix @ matrix[index[n]]
        scores[index[n]] = -np.inf
        order = np.argsort(-scores)
        orders[n] = order[:CLONE_DEPTH]
        nearest_installed = order[pool[order]][:5]
        pooled += any(families[names[k]] == families[n] for k in nearest_installed)
    hits = sum(any(families[names[k]] == families[n] for k in orders[n][:5]) for n in tested)
    # Faces of other families drawn the same as the query (Hind Madurai and Hind Guntur, Veranda
    # and DejaVu Sans share their Latin letters) can only tie with its own family: the second
    # figure leaves them out of the ranking, as recognition's "twins" columns do.
    label_of = {n: i for i, n in enumerate(images.read_names(os.path.join(work, "names.txt")))}
    wanted = {label_of[n] for n in tested} | {label_of[names[k]] for n in tested for k in orders[n]}
    specimens = dict(images.iter_specimens(os.path.join(work, "specimens.bin"), wanted))
    clones = apart = 0
    for n in tested:
        ranked = []
        for k in orders[n]:
            other = names[k]
            if families[other] != families[n] and drawn_alike(specimens[label_of[n]], specimens[label_of[other]]):
                clones += 1
                continue
            ranked.append(other)
            if len(ranked) == 5:
                break
        apart += any(families[other] == families[n] for other in ranked)
    percent = lambda count: 100 * count / max(1, len(tested))  # noqa: E731
    lines = [f"Similarity: {len(tested)} test-family faces with a sibling; another face of the family among "
             f"the 5 nearest of {len(names)} corpus faces for {percent(hits):.1f} %; for {percent(apart):.1f} % "
             f"once faces of other families drawn the same as the query are left out ({clones} such "
             f"faces ranked before the fifth other one). On a machine with the {len(common)} commonly installed "
             f"faces and the test families ({int(pool.sum())} faces in all), where the module ranks these "
             f"alone: {percent(pooled):.1f} %.", "",
             "| font | 5 nearest (score) |", "|---|---|"]
    for n in WELL_KNOWN:
        if n not in index:
            continue
        scores = matrix @ matrix[index[n]]
        scores[index[n]] = -np.inf
        nearest = np.argsort(-scores)[:5]
        lines.append(f"| {n} | " + ", ".join(f"{names[k]} ({scores[k]:.2f})" for k in nearest) + " |")
    return lines


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--work", required=True)
    parser.add_argument("--localisation", default=os.path.join(DATA, "NQ_loc_model.dnm"),
                        help="localisation network to cut the pictures with (skipped when absent)")
    parser.add_argument("--recognition-from", help="weights of the recognition network (default: DIR's network)")
    parser.add_argument("--tables", default=DATA,
                        help="folder of the shipped similarity table, for the module's answers")
    parser.add_argument("--fonts", default=corpus_fetch.default_cache(),
                        help="the corpus folder, whose fonts give the classes' weight and slant")
    parser.add_argument("--similarity-only", action="store_true",
                        help="judge only the similarity vectors of DIR/module-cache (seconds, not the full 6 minutes)")
    args = parser.parse_args(argv)
    torch.set_num_threads(2)
    if args.similarity_only:
        print("\n".join(similarity(args.work)))
        return 0
    net = (export_networks.load_file(args.recognition_from) if args.recognition_from
           else export_networks.load_net(args.work))
    rec_classes = images.read_names(os.path.join(args.work, "rec_classes.txt"))
    specimens = class_specimens(args.work, rec_classes, images.read_names(os.path.join(args.work, "names.txt")))
    twins = twin_classes(specimens, len(rec_classes))
    twinned = sum(1 for c in twins if len(twins[c]) > 1)
    _, family_of = corpus_splits.read_labels()
    families = [corpus_splits.family_key(family_of[n]) for n in rec_classes]
    out = [f"{twinned} of the {len(rec_classes)} classes have a twin drawn the same; the \"twins\" columns "
           "count a twin of the right class as right, the \"family\" one any face of its family, the \"design\" "
           f"ones its twins and faces as wide (within {100 * DESIGN_WIDTH:g} %) whose letters, spacing aside, differ "
           f"from its own by under {DESIGN_SHAPE:g} grey levels, or under {DESIGN_SHAPE_STYLED:g} with its weight "
           f"(within {DESIGN_WEIGHT:g} in OpenType's units) and slant: another foundry's cut of the same letters.", "",
           "The module's answer is its first font after the best classes steered a similar-font query "
           "(with every class installed); \"answer, twins\" and \"answer, design\" count it right as the "
           "columns above do.", "",
           "| pictures | count | top-1 | top-5 | top-1, twins | top-5, twins | top-1, family | top-1, design "
           "| top-5, design | answer | answer, twins | answer, design | answer, top-5 |",
           "|---|---|---|---|---|---|---|---|---|---|---|---|---|"]
    vectors = table_vectors(args.tables, rec_classes)
    scores = table_scores(vectors)
    styles = class_styles(rec_classes, os.path.join(args.fonts, "fonts"))
    designs, distances = design_classes(twins, styles, specimens)
    other_cuts = np.mean([len(d - twins[c]) for c, d in enumerate(designs)])
    unstyled = sum(style is None for style in styles)
    out.insert(1, f"A class has {other_cuts:.2f} other cuts of its design (twins aside) on average"
                  + (f"; {unstyled} classes have no single weight and slant, so only cuts under {DESIGN_SHAPE:g} "
                     "grey levels count for them." if unstyled else "."))
    cases = [("degraded, other seed", "lines_heldout.bin", 1, 0), ("clean", "lines_clean.bin", 1, 0),
             ("line in a picture 2-4 times its height", "lines_tall.bin", 2, 0),
             ("the same pictures cut to the text band", "lines_tall.bin", 2, 1)]
    if os.path.exists(args.localisation):
        rec = os.path.join(args.work, "rec_classes.txt")
        local = ["--localise", os.path.abspath(args.localisation)]
        # The same seeds as prepare_training_data.py, so these are the same pictures.
        prepare_training_data.run_parts(args.work, 2, ["lines", rec, prepare_training_data.WORDS, "--per-font", "1",
                                                       "--seed", "4", "--tall"] + local,
                                        os.path.join(args.work, "lines_tall_localised.bin"))
        prepare_training_data.run_parts(args.work, 2, ["lines", rec, prepare_training_data.WORDS, "--per-font", "4",
                                                       "--seed", "2"] + local,
                                        os.path.join(args.work, "lines_heldout_localised.bin"))
        cases += [("line in a picture 2-4 times its height, cut by the localisation network",
                   "lines_tall_localised.bin", 3, 2),
                  ("degraded, other seed, cut by the localisation network", "lines_heldout_localised.bin", 1, 0)]
    confusions = collections.Counter()
    for title, file, every, first in cases:
        if not os.path.exists(os.path.join(args.work, file)):
            continue
        path = os.path.join(args.work, file)
        count, *figures, wrong = recognition(net, path, twins, families, every=every, first=first,
                                             vectors=vectors, designs=designs)
        out.append(f"| {title} | {count} | " + " | ".join(f"{100 * f:.1f} %" for f in figures) + " |")
        if file == "lines_heldout.bin":
            confusions = wrong
    out += ["", "The most frequent wrong first answers on the degraded pictures (twins left out):", "",
            "| right class | answered | times |", "|---|---|---|"]
    out += [f"| {rec_classes[t]} | {rec_classes[b]} | {k} |" for (t, b), k in confusions.most_common(12)]
    crossing = [(t, b) for (t, b), k in confusions.items() for _ in range(k)
                if families[t] != families[b] and vectors[t] is not None and vectors[b] is not None]
    if crossing:
        half, quarter = np.quantile([scores[t, b] for t, b in crossing], [0.5, 0.25])
        near = [(t, b) for t, b in crossing if b in designs[t]]
        out += ["", f"Of the {len(crossing)} wrong first answers of another family, half score {half:.2f} or more "
                    f"against the right class in the similarity table and three quarters {quarter:.2f} or more; "
                    f"two classes picked at random score {np.nanmedian(scores[np.triu_indices(len(scores), 1)]):.2f}."]
        out[-1] += (f" {len(near)} of them are another cut of the right class's design, whose letters differ "
                    f"from its own by {np.median([distances[min(t, b), max(t, b)] for t, b in near]):.1f} "
                    "grey levels (median)." if near else "")
    out.append("")
    if os.path.exists(os.path.join(args.work, "module-cache")):
        out += similarity(args.work)
    print("\n".join(out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
