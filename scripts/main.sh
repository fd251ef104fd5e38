#!/usr/bin/env bash
# Sets up, builds, then shows Fontrix on this machine's fonts: the module takes them in (the
# caches built, with a progress bar on a terminal), then a short tour of its three services
# through the fontrix tool, as a user would run it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
echo "== building the fontrix tool and the module (a few minutes the first time)"
scripts/build.sh --main
echo
fontrix=build/bin/fontrix
echo "== fontrix index: the module's caches brought up to date with the installed fonts"
$fontrix index
echo
echo "== fontrix classes: the style classes of the first installed fonts"
$fontrix classes --limit 12
echo
echo "== fontrix classes serif --not slab-serif: serif fonts without slab serifs"
$fontrix classes serif --not slab-serif --limit 8
echo
echo "== fontrix similar DejaVuSerif: the installed fonts most like DejaVu Serif (sheet: /tmp/fontrix-similar.png)"
$fontrix similar DejaVuSerif --limit 8 --sheet /tmp/fontrix-similar.png
echo
sample=data/samples/line-liberation-serif-bold.png
echo "== fontrix recognize $sample (drawn in Liberation Serif Bold; sheet: /tmp/fontrix-recognized.png)"
$fontrix recognize "$sample" --limit 5 --sheet /tmp/fontrix-recognized.png
