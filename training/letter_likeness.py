#!/usr/bin/python3
"""Letter likeness: how alike two faces' letters look, measured on the letters themselves; the
(fontrix_training/letter_likeness.py)"""
import sys

from fontrix_training.letter_likeness import main

sys.exit(main())
