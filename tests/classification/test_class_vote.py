#!/usr/bin/python3
"""`fontrix classes` with the class vote, on this machine's fonts and the shipped data: every
font's classes are those worked out here from its linear classes (`--disable class-vote`), its
similarity vector and its look-alikes in the shipped table as the data file describes them, and
the class head's probabilities (the engine's dnm-run over the vector) by the head rules; with
`--disable class-head`, by the vote's own rules; a
missing or damaged data file, or similarity switched off, gives the linear classes, a damaged
file with a warning naming it. The votes kept in the cache folder answer as the vote does, and a
damaged kept file is written again.

Usage: test_class_vote.py PATH/TO/fontrix PATH/TO/libfontrix.so PATH/TO/data
"""
import json
import math
import os
import re
import sys

import numpy as np

import shipped_data_tool
from shipped_data_tool import ShippedDataTest, main

HEAD = "NQ_class_head.dnm"

CLASSES = ("fs_blackletter", "fs_decorative", "fs_handmade", "fs_monospace", "fs_sans_serif", "fs_script",
           "fs_serif", "fs_slab_serif")
FILE = "similarity_table_classes.tsv"
DIM = 768


def read_classes(path):
    """(k, temperature, {class: (low, high)}, [(name, mask)]), read independently of the module."""
    header, faces = {}, []
    with open(path, encoding="utf-8") as f:
        for line in f:
            fields = line.rstrip("\n").split("\t")
            if fields[0] == "face":
                faces.append((fields[2], int(fields[3])))
            elif fields[0] == "rule":
                header[fields[1]] = (float(fields[2]), float(fields[3]))
            elif fields[0] == "head_rule":
                header["head " + fields[1]] = (float(fields[2]), float(fields[3]), float(fields[4]))
            elif fields[0] in ("k", "temperature"):
                header[fields[0]] = float(fields[1])
    return int(header["k"]), header["temperature"], header, faces


def read_pair(meta_path, feature_path):
    """name -> vector of the first entry of each name whose vector is not all zero."""
    with open(meta_path, encoding="utf-8") as f:
        names = f.read().split("\n")[3::6]
    vectors = np.fromfile(feature_path, "<f4").reshape(-1, DIM) if os.path.exists(feature_path) else []
    found = {}
    for name, vector in zip(names, vectors):
        if name not in found and np.any(vector):
            found[name] = vector
    return found


def head_probabilities(vectors):
    """The class head's probabilities (n, 8) of vectors (n, 768), as the engine runs it."""
    import subprocess
    import tempfile
    dnm_run = os.path.join(os.path.dirname(shipped_data_tool.FONTRIX), "dnm-run")
    with tempfile.TemporaryDirectory() as folder:
        source, result = os.path.join(folder, "in.f32"), os.path.join(folder, "out.f32")
        np.asarray(vectors, "<f4").tofile(source)
        subprocess.run([dnm_run, "--model", os.path.join(shipped_data_tool.DATA, HEAD), "--layer", "class_logits",
                        "--width", str(DIM), "--height", "1", "--count", str(len(vectors)), "--input", source,
                        "--output", result], check=True, stdout=subprocess.DEVNULL)
        logits = np.fromfile(result, "<f4").reshape(len(vectors), len(CLASSES)).astype(np.float64)
    return 1 / (1 + np.exp(-logits))


class ClassVoteTest(ShippedDataTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        r = cls.run_tool("--disable", "recognition", "index")
        assert r.returncode == 0, r.stderr

    def classes(self, *args, data=None):
        if data:
            args = ("--data-dir", data) + args
        r = self.run_tool(*args, "--json", "classes")
        self.assertEqual(r.returncode, 0, r.stderr)
        return {f["name"]: set(f["classes"]) for f in json.loads(r.stdout)["fonts"]}, r.stderr

    def test_every_font_gets_the_classes_of_its_look_alikes_joined_with_the_rows(self):
        _, said = self.classes("--disable", "recognition")
        self.assertEqual(said, "", "a clean run shows no alert")
        rules = read_classes(os.path.join(shipped_data_tool.DATA, FILE))[2]
        self.assertIn("head fs_slab_serif", rules, "the shipped file has the class head's rules")
        self.check_the_vote(head=True)
        self.check_the_vote(head=False)

    def check_the_vote(self, head):
        joined, _ = self.classes("--disable", "recognition" if head else "recognition,class-head")
        linear, _ = self.classes("--disable", "recognition,class-vote")
        self.assertEqual(set(joined), set(linear))
        k, temperature, rules, faces = read_classes(os.path.join(shipped_data_tool.DATA, FILE))
        shipped = read_pair(os.path.join(shipped_data_tool.DATA, "NQ_sim_meta_fs.bin"),
                            os.path.join(shipped_data_tool.DATA, "NQ_sim_fea_fs.bin"))
        cached = read_pair(os.path.join(self.cache, "NQ_sim_meta_sys.cch"),
                           os.path.join(self.cache, "NQ_sim_fea_sys.cch"))
        self.assertEqual({name for name, _ in faces}, set(shipped), "the file describes the shipped table")
        voters = np.stack([shipped[name] for name, _ in faces])
        masks = np.array([mask for _, mask in faces])
        with_vectors = [f for f in sorted(joined) if shipped.get(f, cached.get(f)) is not None]
        probabilities = dict(zip(with_vectors, head_probabilities(
            [shipped.get(f, cached.get(f)) for f in with_vectors]))) if head and with_vectors else {}
        checked = changed = 0
        for font, classes in sorted(joined.items()):
            vector = shipped.get(font, cached.get(font))
            if vector is None:
                self.assertEqual(classes, linear[font], f"{font} has no vector: its linear classes")
                continue
            scores = (voters @ vector).astype(np.float64)
            scores[[i for i, (name, _) in enumerate(faces) if name == font]] = -math.inf  # never itself
            order = np.argsort(-scores, kind="stable")
            best = order[:k]
            if len(order) > k and scores[order[k - 1]] == scores[order[k]]:
                continue  # twins tied for the last place: either may vote
            weights = np.exp((scores[best] - scores[best].max()) / temperature)
            expected = set()
            near_a_bound = False
            for c, name in enumerate(CLASSES):
                support = weights @ ((masks[best] >> c) & 1) / weights.sum()
                low, high = rules[name]
                if head:
                    low, high, w = rules["head " + name]
                    support = (1 - w) * support + w * probabilities[font][c]
                near_a_bound |= (low > 0 and abs(support - low) < 1e-4) or abs(support - high) < 1e-4
                if (name in linear[font] and support >= low) or support >= high:
                    expected.add(name)
            if near_a_bound:
                continue  # rounding of the scores may fall either way
            self.assertEqual(classes, expected, font)
            checked += 1
            changed += classes != linear[font]
        self.assertGreater(checked, 0)
        print(f"{checked} fonts checked, the vote{' and the head' if head else ''} changed the classes of "
              f"{changed}", file=sys.stderr)

    def test_kept_votes_answer_as_the_vote_and_a_damaged_file_is_written_again(self):
        path = os.path.join(self.cache, "FontClassVotes.bin")
        if os.path.exists(path):
            os.remove(path)
        voted, _ = self.classes("--disable", "recognition")
        with open(path, "rb") as f:
            kept = f.read()
        again, said = self.classes("--disable", "recognition")
        self.assertEqual((again, said), (voted, ""))
        with open(path, "rb") as f:
            self.assertEqual(f.read(), kept, "nothing new: the file as it was")
        os.truncate(path, len(kept) // 2)
        again, said = self.classes("--disable", "recognition")
        self.assertEqual((again, said), (voted, ""), "only time is lost")
        with open(path, "rb") as f:
            self.assertEqual(f.read(), kept, "written again whole")

    def test_without_a_usable_file_or_similarity_the_classes_are_the_linear_ones(self):
        linear, _ = self.classes("--disable", "recognition,class-vote")
        data = os.path.join(self.tmp.name, "data")
        os.makedirs(data)
        for name in os.listdir(shipped_data_tool.DATA):
            if name != FILE:
                os.symlink(os.path.join(os.path.abspath(shipped_data_tool.DATA), name), os.path.join(data, name))
        with open(os.path.join(shipped_data_tool.DATA, FILE), encoding="utf-8") as f:
            text = f.read()
        out_of_range = re.sub(r"rule\tfs_script\t[^\n]*", "rule\tfs_script\t7\t8", text)
        self.assertNotEqual(out_of_range, text)
        for damage, content in (("missing", None), ("cut short", text[:len(text) // 2]),
                                ("a rule out of range", out_of_range)):
            path = os.path.join(data, FILE)
            if os.path.exists(path):
                os.remove(path)
            if content is not None:
                with open(path, "w", encoding="utf-8") as f:
                    f.write(content)
            answers, said = self.classes("--disable", "recognition", data=data)
            self.assertEqual(answers, linear, damage)
            self.assertIn("warning", said, damage)
            self.assertIn(FILE, said, damage)
        answers, said = self.classes("--disable", "recognition,similarity")
        self.assertEqual(answers, linear)
        self.assertEqual(said, "")


if __name__ == "__main__":
    main()
