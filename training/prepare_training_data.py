#!/usr/bin/python3
"""Chooses the shipped table's faces and makes the training pictures, through the reference
(fontrix_training/prepare_training_data.py)"""
import sys

from fontrix_training.prepare_training_data import main

sys.exit(main())
