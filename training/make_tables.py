#!/usr/bin/python3
"""Makes the shipped similarity pair and the recognition font table with the module's own code.
(fontrix_training/make_tables.py)"""
import sys

from fontrix_training.make_tables import main

sys.exit(main())
