#!/usr/bin/python3
"""Exports the trained network as the module's two model files, after checking that the C++
(fontrix_training/export_networks.py)"""
import sys

from fontrix_training.export_networks import main

sys.exit(main())
