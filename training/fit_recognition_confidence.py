#!/usr/bin/python3
"""Fits how sure recognition is of its answers and writes data/recognition_confidence.tsv.
(fontrix_training/fit_recognition_confidence.py)"""
import sys

from fontrix_training.fit_recognition_confidence import main

sys.exit(main())
