#!/usr/bin/python3
"""Writes training/corpus/manifest.tsv from the fetched corpus.
(fontrix_training/corpus/build_manifest.py)"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))  # the package's parent, training/
from fontrix_training.corpus.build_manifest import main  # noqa: E402

sys.exit(main())
