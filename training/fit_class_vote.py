#!/usr/bin/python3
"""Fits the class vote that stands beside the linear class rows and writes its data file.
(fontrix_training/fit_class_vote.py)"""
import sys

from fontrix_training.fit_class_vote import main

sys.exit(main())
