#!/usr/bin/python3
"""Makes the shipped data from the pinned corpus, stage by stage (fontrix_training/pipeline.py).

    /usr/bin/python3 training/pipeline.py plan|all|STAGE ... [--work DIR] [--data DIR] [--force]
    /usr/bin/python3 training/pipeline.py stamp STAGE ...   # record a stage made by hand as current
"""
import sys

from fontrix_training.pipeline import main

sys.exit(main())
