#!/usr/bin/env bash
# Configures and builds Fontrix in build/ (executables in build/bin, libraries in build/lib).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build -j"$(nproc)"
