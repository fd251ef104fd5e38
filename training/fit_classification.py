#!/usr/bin/python3
"""Fits the eight style-class rows of data/classification_weights.tsv.
(fontrix_training/fit_classification.py)"""
import sys

from fontrix_training.fit_classification import main

sys.exit(main())
