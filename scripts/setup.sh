#!/usr/bin/env bash
# Installs every Debian package that building, testing and running Fontrix needs.
# Idempotent: when everything is present it changes nothing and asks no registry.
# Usage: scripts/setup.sh [--training]   (--training adds PyTorch and what the corpus fetch needs)
set -euo pipefail

packages=(
  build-essential cmake pkg-config git ca-certificates
  libopenblas-dev rapidjson-dev
  libboost-thread-dev libboost-system-dev libboost-filesystem-dev
  libtbb-dev libfreetype-dev libharfbuzz-dev libfontconfig-dev
  libpng-dev libjpeg-dev
  fontconfig  # fc-match and fc-scan: the tests compare names with fc-match, the evaluation reads styles
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  python3 python3-numpy python3-fonttools
  # Fonts the host's tests read: DejaVu's obliques and condensed faces (in -extra), TrueType,
  # CFF and Type 1 outlines, a collection (.ttc), a variable font with named instances (Debian
  # 12's Cantarell is static; Inter is variable) and bitmap-only faces.
  fonts-dejavu-core fonts-dejavu-extra fonts-liberation2 fonts-urw-base35 fonts-texgyre
  fonts-cantarell fonts-wqy-microhei fonts-inter-variable fonts-terminus-otb
  # The Inkscape extension and its tests: Inkscape with the Python modules its inkex needs
  # (Debian only recommends them), PIL to cut pictures, and a virtual display for the tests that
  # run Inkscape with its window up (xdotool closes the message boxes an effect raises).
  inkscape python3-lxml python3-cssselect python3-pil xvfb xauth xdotool
)
if [[ "${1:-}" == "--training" ]]; then
  # PyTorch; brotli for fontTools to read WOFF2; the corpus fetch's apt-get download and npm.
  packages+=(python3-torch python3-brotli)
  command -v npm >/dev/null || packages+=(npm)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]} == 0)); then
  echo "setup: all packages present"
  exit 0
fi

sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then sudo_cmd=(sudo); fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -q
"${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
