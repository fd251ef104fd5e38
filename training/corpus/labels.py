#!/usr/bin/python3
"""Writes training/corpus/labels.tsv: the style classes of every face in manifest.tsv.
(fontrix_training/corpus/labels.py)"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))  # the package's parent, training/
from fontrix_training.corpus.labels import main  # noqa: E402

sys.exit(main())
