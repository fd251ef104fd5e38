#!/usr/bin/python3
"""Writes training/corpus/splits.tsv: every family of the corpus in train, validation or test.

    training/run corpus.splits

Faces are split by family, so no family is seen in training and judged in testing. Width and
optical-size relatives ("Roboto Condensed", "Playfair Display", "Lobster Two") count as the
family they extend. Families are stratified by their primary class: within each class, in
the order of a hash of the family key, every tenth family from the fourth goes to test and
every tenth from the eighth to validation, so even a thin class (blackletter) is in all three.
The hash makes the split independent of the corpus order and stable as families are added.
"""
import sys
import collections
import hashlib
import os
import re

from fontrix_training.corpus import labels
from fontrix_training import CORPUS

SPLITS = os.path.join(CORPUS, "splits.tsv")

RELATIVE_WORDS = re.compile(
    r"\s+(Semi ?Condensed|Extra ?Condensed|Ultra ?Condensed|Condensed|Semi ?Expanded|Extra ?Expanded|Expanded|"
    r"Narrow|Wide|Display|Text|Caption|Subhead|Small|SC|Swash Caps|Unicase|One|Two|Pro|Libre)$", re.IGNORECASE)


def family_key(family):
    """The family a face is split by: its family name without width and size suffixes."""
    key = family.strip()
    while True:
        shorter = RELATIVE_WORDS.sub("", key)
        if shorter == key or not shorter:
            return key.lower()
        key = shorter


def split_of(position):
    return {3: "test", 7: "validation"}.get(position % 10, "train")


def assign(primary_of_key):
    """key -> split, from key -> primary class."""
    by_class = collections.defaultdict(list)
    for key, primary in primary_of_key.items():
        by_class[primary].append(key)
    result = {}
    for primary, keys in by_class.items():
        keys.sort(key=lambda k: hashlib.sha1(k.encode("utf-8")).hexdigest())
        for position, key in enumerate(keys):
            result[key] = split_of(position)
    return result


def primary_classes(face_labels, face_family):
    """key -> the most common primary class among its faces ("" when none is labelled)."""
    votes = collections.defaultdict(collections.Counter)
    for name, family in face_family.items():
        classes = face_labels.get(name, [])
        votes[family_key(family)][classes[0] if classes else ""] += 1
    return {key: counter.most_common(1)[0][0] for key, counter in votes.items()}


def read_labels(path=labels.LABELS):
    """(unique name -> classes, unique name -> family)."""
    classes, families = {}, {}
    with open(path, encoding="utf-8") as f:
        f.readline()
        for line in f:
            name, names, _, family = line.rstrip("\n").split("\t")
            classes[name] = [c for c in names.split(",") if c]
            families[name] = family
    return classes, families


def split_of_faces(path=labels.LABELS):
    """unique name -> split, from the checked-in labels and splits."""
    _, families = read_labels(path)
    splits = read_splits()
    return {name: splits[family_key(family)] for name, family in families.items()}


def read_splits(path=SPLITS):
    with open(path, encoding="utf-8") as f:
        f.readline()
        return dict(line.rstrip("\n").split("\t")[:2] for line in f if line.strip())


def main():
    splits = assign(primary_classes(*read_labels()))
    with open(SPLITS + ".tmp", "w", encoding="utf-8") as f:
        f.write("family_key\tsplit\n")
        for key in sorted(splits):
            f.write(f"{key}\t{splits[key]}\n")
    os.replace(SPLITS + ".tmp", SPLITS)
    print(collections.Counter(splits.values()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
