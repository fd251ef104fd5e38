"""Fontrix's training: the networks, their export, the pictures, the corpus, the teacher, the
fits of the shipped tables and the pipeline that runs them in order (training/run pipeline).

Every stage and tool is a module run as `training/run MODULE` (python3 -m fontrix_training.MODULE
with training/ on the path, which is all this package needs)."""
import os

TRAINING = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
REPO = os.path.dirname(TRAINING)
DATA = os.path.join(REPO, "data")
CORPUS = os.path.join(TRAINING, "corpus")  # the pinned corpus: packages, manifest, labels, splits
WITH_CORPUS = os.path.join(CORPUS, "with-corpus-fonts")
CHECKPOINTS = os.path.join(TRAINING, "checkpoints")
WORK = os.path.expanduser("~/.cache/fontrix-training")
BIN = os.path.join(REPO, "build", "bin")


def tab_rows(path):
    """(line number, tab-separated fields) of each line of a UTF-8 file that is neither empty nor
    a "#" comment: the form of the corpus's and the benchmarks' hand-kept lists."""
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if line and not line.startswith("#"):
                yield number, line.split("\t")
