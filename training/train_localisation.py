#!/usr/bin/python3
"""Trains the localisation network on DIR/bands.bin and exports it as NQ_loc_model.dnm.
(fontrix_training/train_localisation.py)"""
import sys

from fontrix_training.train_localisation import main

sys.exit(main())
