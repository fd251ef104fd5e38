#!/usr/bin/python3
"""Judges the trained network on what it did not learn from; prints Markdown for REPORT.md.
(fontrix_training/evaluate.py)"""
import sys

from fontrix_training.evaluate import main

sys.exit(main())
