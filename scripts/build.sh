#!/usr/bin/env bash
# Configures and builds Fontrix in build/ (executables in build/bin, libraries in build/lib).
# The build runs on any x86-64 processor; FONTRIX_NATIVE=ON tunes it for this one instead (not
# for builds that go to other machines). Given every time, so a build folder configured
# before builds became portable becomes portable too.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DFONTRIX_NATIVE="${FONTRIX_NATIVE:-OFF}" >/dev/null
cmake --build build -j"$(nproc)"
