#!/usr/bin/env bash
# Sets up, builds, then runs what Fontrix can do today: the fontrix tool starts the module in the
# reference host, lets it take in this machine's fonts and lists the fonts its services use; then
# the network engine runs the shipped test network on three images through dnm-run.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh >/dev/null
echo "== fontrix fonts: the installed fonts the module's services use"
build/bin/fontrix fonts
echo
echo "== fontrix specimen: DejaVu Serif drawn as the module draws specimens"
build/bin/fontrix specimen DejaVuSerif "Handgloves abcdefghijklmnopqrstuvwxyz" -o /tmp/fontrix-specimen.png
echo
golden=tests/deepnet/golden
out=$(mktemp)
trap 'rm -f "$out"' EXIT
echo "== dnm-run: golden_net.dnm, layer \"prob\", 3 images of 23x19"
build/bin/dnm-run --model "$golden/golden_net.dnm" --layer prob --width 23 --height 19 --count 3 \
  --input "$golden/golden_input.f32" --output "$out"
/usr/bin/python3 - "$out" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read()
values = struct.unpack("<%df" % (len(data) // 4), data)
for i in range(3):
    p = values[i * 10:(i + 1) * 10]
    best = max(range(10), key=p.__getitem__)
    print("image %d: class %d (p=%.3f)  " % (i, best, p[best]) + " ".join("%.3f" % v for v in p))
PY
