#!/usr/bin/python3
"""Writes training/corpus/splits.tsv: every family of the corpus in train, validation or test.
(fontrix_training/corpus/splits.py)"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))  # the package's parent, training/
from fontrix_training.corpus.splits import main  # noqa: E402

sys.exit(main())
