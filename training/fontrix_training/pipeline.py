"""The stages that make the shipped data, in order, each with its settings written once here.

A stage is a list of commands over the work folder (WORK), the data folder it writes the
shipped files into (DATA, the repository's data/ unless told otherwise) and the fetched corpus
(CORPUS_FONTS). When it finishes, a stamp (WORK/stamps/STAGE.json) records a digest of its
commands and a fingerprint of each input; the stage is current while the stamp is there, its
commands and inputs are unchanged and its outputs exist. Inputs are files other stages make
and the checked-in corpus files, not the code: after a change of code, run the stage with
--force. Small files are fingerprinted by their contents, large ones (the pictures) by size
and time. The training commands go on from their checkpoints (--resume), so a stage that was
interrupted is simply run again. Since the stages run the package's modules (`-m
fontrix_training.MODULE`) rather than a script each, a work folder stamped before reads every
stage as changed: `training/run pipeline stamp STAGE ...` records the stages it holds as current.
"""
import argparse
import glob
import hashlib
import json
import os
import subprocess
import sys
import time
from collections import namedtuple

from fontrix_training import BIN, DATA, REPO, TRAINING, WITH_CORPUS, WORK
from fontrix_training.corpus import fetch

PYTHON = "/usr/bin/python3"
HASHED_UP_TO = 64 << 20  # bytes: larger files are fingerprinted by size and time

# A command is a list of words; ">" followed by a path as its last two words sends its output there.
Stage = namedtuple("Stage", "name makes commands inputs outputs")


def py(module, *args):
    """A module of this package run with Debian's Python (the package's folder is put on the
    path of every command the pipeline runs)."""
    return [PYTHON, "-m", "fontrix_training." + module, *args]


def train(*args):
    return py("train_networks", "--work", "{work}", "--resume", *args)


RECOGNITION = ["--sim-batch", "0", "--rec-batch", "64"]
CORPUS_FILES = ["{training}/corpus/manifest.tsv", "{training}/corpus/labels.tsv", "{training}/corpus/splits.tsv"]
LISTS = ["{work}/names.txt", "{work}/table.tsv", "{work}/rec_classes.txt", "{work}/sim_classes.txt"]
PICTURES = ["specimens.bin", "lines_first.bin", "lines.bin", "lines_more.bin", "lines_third.bin", "lines_fourth.bin",
            "lines_validation.bin", "lines_clean_train.bin", "lines_heldout.bin", "lines_clean.bin", "lines_tall.bin",
            "bands.bin"]
NETWORKS = ["{data}/NQ_sim_model.dnm", "{data}/NQ_rec_model.dnm", "{data}/NQ_loc_model.dnm"]
TABLES = ["{data}/NQ_sim_fea_fs.bin", "{data}/NQ_sim_meta_fs.bin", "{data}/NQ_rec_font.bin"]
# The similarity top trained on mined hard negatives of other families, from the second stage's
# weights: where the training towards the teacher began. Its trainer has since given way to the
# teacher's, so its weights come from the commit that shipped them.
FAMILY_TOP = "c9742a1:training/checkpoints/similarity.pt"


def pictures(*names):
    return ["{work}/" + n for n in names]


STAGES = [
    Stage("corpus", "the pinned font corpus (about 15 minutes, 0.5 GB)",
          [py("corpus.fetch")], ["{training}/corpus/packages.tsv"], ["{corpus}/fonts"]),
    Stage("features", "the 96 features of every corpus face, measured by the module",
          [[WITH_CORPUS, "{bin}/font-features", "--all", ">", "{work}/features.tsv"]],
          ["{corpus}/fonts", "{training}/corpus/manifest.tsv"], ["{work}/features.tsv"]),
    Stage("classification", "the style-class rows of classification_weights.tsv (9 minutes)",
          [py("fit_classification", "{work}/features.tsv", "--write", "--to", "{data}/classification_weights.tsv",
              "--report", "{work}/fit-cv.md")],
          ["{work}/features.tsv"] + CORPUS_FILES, ["{data}/classification_weights.tsv", "{work}/fit-cv.md"]),
    Stage("pictures", "the table's faces, specimens and training pictures (about 25 minutes, 20 GB)",
          [py("prepare_training_data", "--work", "{work}")],
          ["{corpus}/fonts", "{training}/words.txt"] + CORPUS_FILES, LISTS + pictures(*PICTURES)),
    Stage("stage1-start", "the first stage's first 5,750 steps, on a 30,000-step schedule (1 hour)",
          [train("--steps", "30000", "--stop-at", "5750", "--sim-batch", "12", "--lines", "lines_first.bin",
                 "--save-to", "{work}/first-start")],
          pictures("specimens.bin", "lines_first.bin") + LISTS, ["{work}/first-start/checkpoint.pt"]),
    Stage("stage1", "the first stage, resumed to step 16,000 on a 16,000-step schedule (2 hours)",
          [train("--steps", "16000", "--sim-batch", "12", "--lines", "lines_first.bin", "--save-to", "{work}/first",
                 "--resume-from", "{work}/first-start/checkpoint.pt")],
          ["{work}/first-start/checkpoint.pt"] + pictures("specimens.bin", "lines_first.bin"),
          ["{work}/first/fontnet_trunk.pt"]),
    Stage("stage2", "similarity and recognition to step 24,000 (2 h 35 min): the similarity trunk",
          [train("--init", "{work}/first/fontnet_trunk.pt", "--steps", "24000", "--lr", "1.5e-3", "--sim-batch", "12",
                 "--sim-queue", "384", "--lines", "lines.bin", "lines_clean_train.bin", "--save-to", "{work}/second")],
          ["{work}/first/fontnet_trunk.pt"] + pictures("specimens.bin", "lines.bin", "lines_clean_train.bin"),
          ["{work}/second/fontnet_trunk.pt", "{work}/second/fontnet.pt"]),
    Stage("stage3", "recognition alone to step 44,000 (1 h 40 min)",
          [train("--init", "{work}/second/fontnet_trunk.pt", "--steps", "44000", "--lr", "8e-4", *RECOGNITION,
                 "--lines", "lines.bin", "lines_more.bin", "lines_clean_train.bin", "--save-to", "{work}/recognition")],
          ["{work}/second/fontnet_trunk.pt"] + pictures("lines.bin", "lines_more.bin", "lines_clean_train.bin"),
          ["{work}/recognition/fontnet_trunk.pt"]),
    Stage("stage4", "recognition alone to step 69,000 (1 h 50 min)",
          [train("--init", "{work}/recognition/fontnet_trunk.pt", "--steps", "69000", "--lr", "8.5e-4", *RECOGNITION,
                 "--lines", "lines.bin", "lines_more.bin", "lines_third.bin", "lines_clean_train.bin",
                 "--save-to", "{work}/recognition2")],
          ["{work}/recognition/fontnet_trunk.pt"] + pictures("lines.bin", "lines_more.bin", "lines_third.bin",
                                                             "lines_clean_train.bin"),
          ["{work}/recognition2/fontnet_trunk.pt"]),
    Stage("stage5", "recognition alone to step 89,000 (1 h 15 min): the shipped recognition network",
          [train("--init", "{work}/recognition2/fontnet_trunk.pt", "--steps", "89000", "--lr", "2.1e-3", *RECOGNITION,
                 "--lines", "lines.bin", "lines_more.bin", "lines_third.bin", "lines_fourth.bin",
                 "lines_clean_train.bin", "--save-to", "{work}/recognition3")],
          ["{work}/recognition2/fontnet_trunk.pt"] + pictures("lines.bin", "lines_more.bin", "lines_third.bin",
                                                              "lines_fourth.bin", "lines_clean_train.bin"),
          ["{work}/recognition3/fontnet.pt"]),
    Stage("localisation", "the localisation network, NQ_loc_model.dnm (6 minutes)",
          [py("train_localisation", "--work", "{work}", "--resume", "--out", "{data}")],
          pictures("bands.bin"), ["{data}/NQ_loc_model.dnm"]),
    Stage("teacher", "the letter-likeness teacher: every face's 50 nearest (3 minutes)",
          [py("letter_likeness", "--work", "{work}")],
          ["{corpus}/fonts", "{training}/corpus/manifest.tsv"], ["{work}/teacher/neighbours-*.npz"]),
    Stage("simfamily", "the similarity top trained on hard negatives, where the teacher's training starts",
          [["git", "-C", "{repo}", "show", FAMILY_TOP, ">", "{work}/simfamily/fontnet.pt"]],
          [], ["{work}/simfamily/fontnet.pt"]),
    Stage("simteach1", "conv6 and conv7 trained towards the teacher (40 minutes)",
          [py("train_similarity_top", "--work", "{work}", "--init", "{work}/simfamily/fontnet.pt", "--steps", "3000",
              "--save-to", "{work}/simteach1")],
          ["{work}/simfamily/fontnet.pt", "{work}/teacher/neighbours-*.npz"] + pictures("specimens.bin"),
          ["{work}/simteach1/fontnet.pt"]),
    Stage("simteach2", "conv5 to conv7 on towards the teacher (60 minutes)",
          [py("train_similarity_top", "--work", "{work}", "--init", "{work}/simteach1/fontnet.pt", "--fixed", "4",
              "--steps", "2000", "--near", "5", "--teacher-scale", "6", "--near-enough", "30",
              "--save-to", "{work}/simteach2")],
          ["{work}/simteach1/fontnet.pt", "{work}/teacher/neighbours-*.npz"] + pictures("specimens.bin"),
          ["{work}/simteach2/fontnet.pt"]),
    Stage("simkind", "conv6 and conv7 on towards the teacher with the style classes as a second signal "
          "(25 minutes): the shipped similarity network",
          [py("train_similarity_top", "--work", "{work}", "--init", "{work}/simteach2/fontnet.pt", "--steps", "1500",
              "--near", "5", "--teacher-scale", "6", "--near-enough", "30", "--lr", "2e-4", "--kind-penalty", "2",
              "--class-weight", "1", "--judge-every", "250", "--save-to", "{work}/simkind")],
          ["{work}/simteach2/fontnet.pt", "{work}/teacher/neighbours-*.npz"] + pictures("specimens.bin")
          + CORPUS_FILES, ["{work}/simkind/fontnet.pt"]),
    Stage("export", "NQ_sim_model.dnm and NQ_rec_model.dnm, checked against PyTorch",
          [py("export_networks", "--work", "{work}", "--recognition-from", "{work}/recognition3/fontnet.pt",
              "--similarity-from", "{work}/simkind/fontnet.pt", "--out", "{data}")],
          ["{work}/recognition3/fontnet.pt", "{work}/simkind/fontnet.pt"],
          ["{data}/NQ_sim_model.dnm", "{data}/NQ_rec_model.dnm"]),
    Stage("tables", "the similarity pair and the recognition font table, computed by the module (3 minutes)",
          [py("make_tables", "--work", "{work}", "--out", "{data}")],
          ["{data}/NQ_sim_model.dnm", "{work}/table.tsv", "{work}/rec_classes.txt"], TABLES),
    Stage("known-faces", "the known faces: every corpus face with where to get it, its similarity vector beside the "
          "shipped pair's and its recognition line, computed by the module (~6 minutes)",
          [py("make_known_faces", "--data", "{data}", "--cache", "{corpus}/fontrix-cache")],
          NETWORKS + TABLES + CORPUS_FILES,
          ["{data}/NQ_known_faces.tsv", "{data}/NQ_sim_fea_known.bin", "{data}/NQ_rec_lines_known.bin"]),
    Stage("class-vote", "similarity_table_classes.tsv and NQ_class_head.dnm: the table faces' classes, the class "
          "head and the rules joining them with the rows (3 minutes)",
          [py("fit_class_vote", "--work", "{work}", "--data", "{data}", "--write",
              "--to", "{data}/similarity_table_classes.tsv", "--head-to", "{data}/NQ_class_head.dnm")],
          ["{work}/features.tsv", "{work}/fit-cv.md", "{data}/NQ_sim_fea_fs.bin", "{data}/NQ_sim_meta_fs.bin"]
          + CORPUS_FILES, ["{data}/similarity_table_classes.tsv", "{data}/NQ_class_head.dnm"]),
    Stage("confidence", "recognition_confidence.tsv, fitted on the fit pictures of installed and absent faces",
          [py("recognition_figures", "--fontrix", "{bin}/fontrix", "--data", "{data}",
              "--set", "fit", "--absent", "{corpus}", "--installed-only",
              "--dump", "{work}/confidence/fit-lines.jsonl"),
           py("recognition_figures", "--fontrix", "{bin}/fontrix", "--data", "{data}",
              "--set", "fit", "--absent", "{corpus}", "--installed-only", "--disable", "installed-lines",
              "--dump", "{work}/confidence/fit-plain.jsonl"),
           py("recognition_figures", "--fontrix", "{bin}/fontrix", "--data", "{data}",
              "--set", "fit", "--absent", "{corpus}", "--dump", "{work}/confidence/fit-known.jsonl"),
           py("fit_recognition_confidence", "{work}/confidence/fit-lines.jsonl",
              "{work}/confidence/fit-plain.jsonl", "--with-known", "{work}/confidence/fit-known.jsonl",
              "--write", "--known-only", "--to", "{data}/recognition_confidence.tsv")],
          NETWORKS + TABLES + ["{data}/classification_weights.tsv", "{data}/similarity_table_classes.tsv",
                               "{data}/NQ_known_faces.tsv", "{data}/NQ_rec_lines_known.bin"],
          ["{data}/recognition_confidence.tsv"]),
    Stage("figures", "the report's recognition, localisation and similarity figures (not shipped; 6 minutes)",
          [py("evaluate", "--work", "{work}", "--recognition-from", "{work}/recognition3/fontnet.pt",
              "--tables", "{data}", "--localisation", "{data}/NQ_loc_model.dnm", ">", "{work}/figures.md")],
          ["{work}/recognition3/fontnet.pt"] + NETWORKS + TABLES
          + pictures("lines_heldout.bin", "lines_clean.bin", "lines_tall.bin"), ["{work}/figures.md"]),
]


class Pipeline:
    def __init__(self, stages=STAGES, work=WORK, data=DATA, corpus=None, training=TRAINING, repo=REPO, bin=BIN):
        self.stages = {s.name: s for s in stages}
        self.order = [s.name for s in stages]
        self.places = {"work": work, "data": data, "corpus": corpus or fetch.default_cache(), "training": training,
                       "repo": repo, "bin": bin}
        self.stamps = os.path.join(work, "stamps")

    def expand(self, word):
        return word.format(**self.places)

    def paths(self, patterns):
        """Every path the patterns name; a pattern with "*" names the files it matches."""
        found = []
        for pattern in map(self.expand, patterns):
            found += sorted(glob.glob(pattern)) if "*" in pattern else [pattern]
        return found

    def settings(self, stage):
        """A digest of the stage's commands, inputs and outputs as written, not where they lie."""
        return hashlib.sha256(json.dumps([stage.commands, stage.inputs, stage.outputs]).encode()).hexdigest()[:16]

    def fingerprints(self, stage):
        return {path: fingerprint(path) for path in self.paths(stage.inputs)}

    def stamp_path(self, name):
        return os.path.join(self.stamps, name + ".json")

    def why_stale(self, name):
        """What makes the stage need a run, or None when it is current."""
        stage = self.stages[name]
        missing = [p for p in stage.outputs if not self.paths([p]) or not all(map(os.path.exists, self.paths([p])))]
        try:
            with open(self.stamp_path(name), encoding="utf-8") as f:
                stamp = json.load(f)
        except FileNotFoundError:
            return "never run here" + (f" ({len(missing)} of its outputs missing)" if missing else
                                       " (its outputs exist: 'stamp' records them as current)")
        if stamp["settings"] != self.settings(stage):
            return "its settings changed"
        if stamp["data"] != self.places["data"]:
            return f"it wrote into {stamp['data']}"
        now = self.fingerprints(stage)
        changed = sorted(set(now) ^ set(stamp["inputs"]) | {p for p in now if now[p] != stamp["inputs"].get(p)})
        if changed:
            return "input changed: " + ", ".join(changed)
        if missing:
            return "output missing: " + ", ".join(self.expand(p) for p in missing)
        return None

    def stamp(self, name):
        stage = self.stages[name]
        os.makedirs(self.stamps, exist_ok=True)
        record = {"settings": self.settings(stage), "data": self.places["data"], "inputs": self.fingerprints(stage),
                  "when": time.strftime("%Y-%m-%d %H:%M:%S")}
        with open(self.stamp_path(name) + ".tmp", "w", encoding="utf-8") as f:
            json.dump(record, f, indent=1)
        os.replace(self.stamp_path(name) + ".tmp", self.stamp_path(name))

    def command_line(self, command):
        words = [self.expand(w) for w in command]
        return " ".join(w if w == ">" or w.replace("/", "").replace("-", "").replace(".", "").replace("_", "")
                        .replace("=", "").replace(":", "").replace(",", "").isalnum() else repr(w) for w in words)

    def run(self, name, force=False, out=sys.stdout):
        """Runs the stage unless it is current; True when it ran."""
        why = "forced" if force else self.why_stale(name)
        if why is None:
            print(f"{name}: current", file=out, flush=True)
            return False
        print(f"{name}: {why}; running", file=out, flush=True)
        for path in self.paths(self.stages[name].outputs):
            os.makedirs(os.path.dirname(path), exist_ok=True)
        # The package's modules run as `python3 -m fontrix_training.MODULE`: its folder goes on the
        # path of every command, once, here.
        path = os.environ.get("PYTHONPATH")
        env = dict(os.environ, PYTHONPATH=self.places["training"] + (os.pathsep + path if path else ""))
        for command in self.stages[name].commands:
            words = [self.expand(w) for w in command]
            target = None
            if len(words) > 2 and words[-2] == ">":
                words, target = words[:-2], words[-1]
            print("  " + self.command_line(command), file=out, flush=True)
            if target:
                with open(target + ".tmp", "wb") as f:
                    subprocess.run(words, stdout=f, check=True, env=env)
                os.replace(target + ".tmp", target)
            else:
                subprocess.run(words, check=True, env=env)
        self.stamp(name)
        return True

    def plan(self, out=sys.stdout):
        for name in self.order:
            why = self.why_stale(name)
            print(f"{name}: {self.stages[name].makes}\n  {'current' if why is None else 'to run: ' + why}", file=out)
            for command in self.stages[name].commands:
                print("    " + self.command_line(command), file=out)


def fingerprint(path):
    if os.path.isdir(path):
        listing = sorted((os.path.relpath(os.path.join(d, f), path), os.path.getsize(os.path.join(d, f)))
                         for d, _, files in os.walk(path) for f in files)
        return "folder " + hashlib.sha256(json.dumps(listing).encode()).hexdigest()[:16]
    if not os.path.exists(path):
        return "missing"
    size = os.path.getsize(path)
    if size > HASHED_UP_TO:
        return f"size {size}, time {os.stat(path).st_mtime_ns}"
    digest = hashlib.sha256()
    with open(path, "rb") as f:
        for block in iter(lambda: f.read(1 << 20), b""):
            digest.update(block)
    return "sha256 " + digest.hexdigest()[:16]


def main(argv=None, stages=STAGES):
    parser = argparse.ArgumentParser(description="Makes the shipped data stage by stage: "
                                     "plan shows each stage and whether it is current, all runs the stale ones.")
    parser.add_argument("what", nargs="+", help="plan, all, a stage's name, or stamp STAGE ...")
    parser.add_argument("--work", default=WORK, help="the work folder (default %(default)s)")
    parser.add_argument("--data", default=DATA, help="where the shipped files are written (default %(default)s)")
    parser.add_argument("--force", action="store_true", help="run the named stages even when current")
    args = parser.parse_args(argv)
    pipeline = Pipeline(stages, work=os.path.abspath(args.work), data=os.path.abspath(args.data))
    what, names = args.what[0], args.what[1:]
    if what == "stamp":
        for name in names:
            if name not in pipeline.stages:
                parser.error(f"no stage {name}")
            missing = [p for p in pipeline.paths(pipeline.stages[name].outputs) if not os.path.exists(p)]
            if missing or not pipeline.paths(pipeline.stages[name].outputs):
                parser.error(f"{name}: outputs missing ({', '.join(missing)}), nothing to record")
            pipeline.stamp(name)
            print(f"{name}: recorded as current")
        return 0
    if what == "plan":
        pipeline.plan()
        return 0
    chosen = pipeline.order if what == "all" else [what] + names
    unknown = [n for n in chosen if n not in pipeline.stages]
    if unknown:
        parser.error(f"no stage {', '.join(unknown)} (stages: {', '.join(pipeline.order)})")
    for name in chosen:
        pipeline.run(name, force=args.force)
    return 0


if __name__ == "__main__":
    sys.exit(main())
