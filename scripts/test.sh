#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds, and runs every test (C++ and Python, through CTest).
#   scripts/test.sh              the release build in build/
#   scripts/test.sh --sanitize   also every test under AddressSanitizer with UndefinedBehaviorSanitizer
#                                (build-asan/) and under ThreadSanitizer (build-tsan/), with clang
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --tests
# The C and C++ sources keep the project's .clang-format, the Python ones .flake8: a file that
# drifts fails the run (in a checkout; a copy without git's index is not checked).
if git rev-parse --git-dir >/dev/null 2>&1; then
  git ls-files '*.c' '*.cpp' '*.h' '*.inc' | xargs clang-format --dry-run --Werror
  git ls-files '*.py' | xargs /usr/bin/python3 -m flake8
fi
scripts/build.sh
status=0
ctest --test-dir build --output-on-failure -j"$(nproc)" || status=$?
# What was skipped, and why (a package absent, too few fonts), in this run's own output.
/usr/bin/python3 scripts/skipped_tests.py build/Testing/Temporary/LastTest.log
((status == 0)) || exit "$status"
[[ "${1:-}" == "--sanitize" ]] || exit 0

# Each sanitizer in a build folder of its own, without benchmarks (their timings mean nothing
# there); a finding stops the test that made it.
sanitized() {
  local folder=$1 flags=$2
  CC=clang CXX=clang++ cmake -S . -B "$folder" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFONTRIX_BUILD_BENCH=OFF \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
    -DCMAKE_SHARED_LINKER_FLAGS="$flags" -DCMAKE_MODULE_LINKER_FLAGS="$flags" >/dev/null
  cmake --build "$folder" -j"$(nproc)"
  ctest --test-dir "$folder" --output-on-failure -j"$(nproc)" --timeout 1500
}
# Only pointer-overflow is recoverable, so that the one RapidJSON report can be suppressed.
export ASAN_OPTIONS=detect_leaks=1 TSAN_OPTIONS="second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:suppressions=$PWD/scripts/ubsan.supp"
sanitized build-asan "-fsanitize=address,undefined -fno-sanitize-recover=all -fsanitize-recover=pointer-overflow \
  -fno-omit-frame-pointer"
sanitized build-tsan "-fsanitize=thread"
