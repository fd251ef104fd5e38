#!/usr/bin/env bash
# Configures and builds Fontrix in build/ (executables in build/bin, libraries in build/lib).
#   scripts/build.sh          everything: the tool and module, tools, tests, benchmarks, fuzz replays
#   scripts/build.sh --main   only the fontrix tool and the module (what the main job runs)
# The build runs on any x86-64 processor; FONTRIX_NATIVE=ON tunes it for this one instead (not
# for builds that go to other machines). The options are given every time, so a build folder
# configured otherwise before is brought back to them.
set -euo pipefail
cd "$(dirname "$0")/.."
if [[ "${1:-}" == "--main" ]]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DFONTRIX_NATIVE="${FONTRIX_NATIVE:-OFF}" \
    -DFONTRIX_BUILD_TESTS=OFF -DFONTRIX_BUILD_BENCH=OFF >/dev/null
  cmake --build build -j"$(nproc)" --target fontrix_cli fontrix
else
  cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DFONTRIX_NATIVE="${FONTRIX_NATIVE:-OFF}" \
    -DFONTRIX_BUILD_TESTS=ON -DFONTRIX_BUILD_BENCH=ON >/dev/null
  cmake --build build -j"$(nproc)"
fi
