#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs every test (C++ and Python, through CTest).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh
ctest --test-dir build --output-on-failure -j"$(nproc)"
