#!/usr/bin/python3
"""Fetches the font corpus named in packages.tsv into a cache folder outside the repository.
(fontrix_training/corpus/fetch.py)"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))  # the package's parent, training/
from fontrix_training.corpus.fetch import main  # noqa: E402

sys.exit(main())
