#!/usr/bin/python3
"""Retrains the top of the similarity trunk (conv6, conv7; with --fixed 4 also conv5) so that the
(fontrix_training/train_similarity_top.py)"""
import sys

from fontrix_training.train_similarity_top import main

sys.exit(main())
