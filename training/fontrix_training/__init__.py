"""Fontrix's training: the networks, their export, the pictures, the corpus, the teacher, the
fits of the shipped tables and the pipeline that runs them in order (training/pipeline.py).

The entry points are the short scripts in training/; running one puts training/ on the path,
which is all this package needs."""
import os

TRAINING = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
REPO = os.path.dirname(TRAINING)
DATA = os.path.join(REPO, "data")
CORPUS = os.path.join(TRAINING, "corpus")  # the pinned corpus: packages, manifest, labels, splits
WITH_CORPUS = os.path.join(CORPUS, "with-corpus-fonts")
CHECKPOINTS = os.path.join(TRAINING, "checkpoints")
WORK = os.path.expanduser("~/.cache/fontrix-training")
BIN = os.path.join(REPO, "build", "bin")
