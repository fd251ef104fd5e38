#!/usr/bin/python3
"""Trains the network shared by similarity and recognition (fontnet.py) on the CPU.
(fontrix_training/train_networks.py)"""
import sys

from fontrix_training.train_networks import main

sys.exit(main())
