#!/usr/bin/python3
"""Inkscape's Python for the tests: runs the extension with /usr/bin/python3 as Inkscape would,
passes its output and errors on, and appends a JSON line (arguments, exit status, standard
error) to the file $FONTRIX_TEST_EXTENSION_LOG, so the tests can read what a message box said."""
import json
import os
import subprocess
import sys

done = subprocess.run(["/usr/bin/python3", *sys.argv[1:]], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
sys.stdout.buffer.write(done.stdout)
sys.stdout.flush()
with open(os.environ["FONTRIX_TEST_EXTENSION_LOG"], "a") as log:
    log.write(json.dumps({"args": sys.argv[1:], "status": done.returncode,
                          "stderr": done.stderr.decode("utf-8", "replace")}) + "\n")
sys.stderr.buffer.write(done.stderr)
sys.exit(done.returncode)
