#!/usr/bin/env bash
# Installs the Debian packages Fontrix needs: by default what building and running it needs
# (the main job); --tests adds what the tests need; --training adds PyTorch and what the corpus
# fetch needs. Idempotent: when everything is present it changes nothing and asks no registry.
# Usage: scripts/setup.sh [--tests] [--training]
set -euo pipefail

packages=(
  build-essential cmake pkg-config ca-certificates
  rapidjson-dev
  libboost-thread-dev libboost-system-dev libboost-filesystem-dev
  libtbb-dev libfreetype-dev libharfbuzz-dev libfontconfig-dev
  libpng-dev libjpeg-dev
  fontconfig
  # The faces the main job's tour names: DejaVu Serif, and Liberation Serif, the sample picture's.
  fonts-dejavu-core fonts-liberation2
)
tests=(
  git libgtest-dev libgmock-dev libbenchmark-dev
  # The reference the engine's products are measured against in bench/ (the module links no BLAS).
  libopenblas-dev
  clang libclang-rt-14-dev clang-format flake8
  python3 python3-numpy python3-fonttools
  # Fonts the host's tests read: DejaVu's obliques and condensed faces (in -extra), TrueType,
  # CFF and Type 1 outlines, a collection (.ttc), a variable font with named instances (Debian
  # 12's Cantarell is static; Inter is variable) and bitmap-only faces.
  fonts-dejavu-extra fonts-urw-base35 fonts-texgyre
  fonts-cantarell fonts-wqy-microhei fonts-inter-variable fonts-terminus-otb
  # The Inkscape extension and its tests: Inkscape with the Python modules its inkex needs
  # (Debian only recommends them), PIL to cut pictures, and a virtual display for the tests that
  # run Inkscape with its window up (xdotool closes the message boxes an effect raises).
  inkscape python3-lxml python3-cssselect python3-pil xvfb xauth xdotool
  # fontrix serve's page, tested in a real browser driven through WebDriver.
  chromium chromium-driver python3-selenium
)
for option in "$@"; do
  case "$option" in
    --tests) packages+=("${tests[@]}") ;;
    # PyTorch; brotli for fontTools to read WOFF2; the corpus fetch's apt-get download and npm.
    --training)
      packages+=(python3 python3-numpy python3-fonttools python3-torch python3-brotli)
      command -v npm >/dev/null || packages+=(npm)
      ;;
    *) echo "setup: unknown option $option (known: --tests, --training)" >&2; exit 2 ;;
  esac
done

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
