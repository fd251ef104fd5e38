#!/usr/bin/env bash
# Engine speed and memory on this machine, the figures quoted in bench/README.md. Each timed
# comparison runs both ways users meet it: with OPENBLAS_CORETYPE and OPENBLAS_L2_SIZE unset
# (OpenBLAS picks its kernel by the processor's name; it is the products' reference here, and
# what an earlier engine multiplied with) and with OPENBLAS_CORETYPE=Prescott (its generic
# kernel, as on a processor it does not know). Only this script's own commands change them; the
# engine's kernels read neither.
#  1. the reference network (Google Benchmark): batch 5 and 10 on 1 and 2 threads, each layer
#     with 3×3 and 5×5 convolutions on Winograd tiles and unfolded, the products on the engine's
#     kernels against the reference BLAS (and BLIS, when libblis4-serial is installed);
#  2. PyTorch on the same network and weights, in the same run, alternating, with the ratio,
#     after checking that both compute the same "pool4" (needs python3-torch: setup --training);
#  3. the narrower kernel families on this processor (FONTRIX_ISA=avx2, sse2);
#  4. the shipped networks per crop, batch 10, one thread;
#  5. whole processes: fontrix recognize of a 1600 × 1000 page, and (FONTRIX_BENCH_INDEX=1, it
#     takes minutes) fontrix index from an empty cache;
#  6. peak resident memory of dnm-run at batch 10.
# BASELINE=FOLDER, a build folder of an earlier commit, adds its engine on the reference and the
# similarity network, alternating with this build (bench/compare_builds.py).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh >/dev/null
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export PYTHONPATH="$PWD/training${PYTHONPATH:+:$PYTHONPATH}"  # the training package's model writer
/usr/bin/python3 bench/reference_net.py --export "$tmp/reference_net.dnm" >/dev/null
export FONTRIX_BENCH_MODEL="$tmp/reference_net.dnm"
blis=/usr/lib/x86_64-linux-gnu/blis-serial/libblis.so.4

openblas_way() {  # runs "$@" with the OpenBLAS variables of way $way
  if [[ "$way" == unset ]]; then
    env -u OPENBLAS_CORETYPE -u OPENBLAS_L2_SIZE "$@"
  else
    env -u OPENBLAS_L2_SIZE OPENBLAS_CORETYPE=Prescott "$@"
  fi
}

for way in unset Prescott; do
  echo "== 1. reference network, OPENBLAS_CORETYPE $way"
  openblas_way OPENBLAS_VERBOSE=2 build/bin/deepnet_bench --benchmark_min_time=1
  echo "== 2. PyTorch on the same network, OPENBLAS_CORETYPE $way"
  openblas_way /usr/bin/python3 bench/compare_pytorch.py \
    --bench-binary build/bin/deepnet_bench --dnm-run build/bin/dnm-run \
    --benchmark-arg=--benchmark_filter=BM_ReferenceNet/ --benchmark-arg=--benchmark_min_time=1 --rounds 4
done
if [[ -e "$blis" ]]; then
  echo "== 1b. the products on BLIS (libblis4-serial), which picks its kernels by processor model too"
  BLIS_ARCH_DEBUG=1 LD_PRELOAD="$blis" build/bin/deepnet_bench --benchmark_filter='ProductsOnly/0' \
    --benchmark_min_time=1
fi
echo "== 3. the narrower kernel families on this processor"
for family in avx2 sse2; do
  FONTRIX_ISA=$family build/bin/deepnet_bench --benchmark_filter='BM_ReferenceNet/batch:10/threads:1|ProductsOnly/1' \
    --benchmark_min_time=1 2>&1 | grep BM_
done
echo "== 4. the shipped networks, batch 10 of 109 × 109 crops to \"pool4\", one thread"
for model in data/NQ_sim_model.dnm data/NQ_rec_model.dnm; do
  echo "-- $model"
  FONTRIX_BENCH_MODEL=$model build/bin/deepnet_bench --benchmark_filter='BM_ReferenceNet/batch:10|Layers' \
    --benchmark_min_time=1 2>&1 | grep BM_
done
if [[ -n "${BASELINE:-}" ]]; then
  for way in unset Prescott; do
    echo "-- this build (A) against $BASELINE (B), OPENBLAS_CORETYPE $way"
    bench/compare_builds.py build "$BASELINE" --openblas "$way" --rounds 3 --min-time 1
    bench/compare_builds.py build "$BASELINE" --openblas "$way" --rounds 3 --min-time 1 --model data/NQ_sim_model.dnm
  done
fi
echo "== 5. whole processes (the module links no BLAS: both ways should agree)"
/usr/bin/python3 - "$tmp/page.png" <<'PY'
import sys
from PIL import Image, ImageDraw, ImageFont
page = Image.new("L", (1600, 1000), 255)
font = ImageFont.truetype("/usr/share/fonts/truetype/dejavu/DejaVuSerif.ttf", 44)
ImageDraw.Draw(page).text((180, 470), "Sphinx of black quartz, judge my vow", font=font, fill=0)
page.save(sys.argv[1])
PY
ways=(--unset "unset=OPENBLAS_CORETYPE,OPENBLAS_L2_SIZE" --unset "Prescott=OPENBLAS_L2_SIZE"
  --env "Prescott=OPENBLAS_CORETYPE=Prescott")
build/bin/fontrix index >/dev/null 2>&1 || true
/usr/bin/python3 bench/whole_process.py --runs 7 "${ways[@]}" -- build/bin/fontrix recognize "$tmp/page.png"
if [[ -n "${FONTRIX_BENCH_INDEX:-}" ]]; then
  /usr/bin/python3 bench/whole_process.py --runs 1 --no-warmup --fresh-cache "${ways[@]}" -- build/bin/fontrix index
fi
echo "== 6. peak memory, dnm-run at batch 10 (model, input, runnable network)"
/usr/bin/python3 -c "import numpy as np; np.random.RandomState(1).uniform(-128,127,10*109*109).astype('<f4').tofile('$tmp/in.f32')"
head -c $((109 * 109 * 4)) "$tmp/in.f32" >"$tmp/in1.f32"
/usr/bin/time -f "peak RSS %M KiB" build/bin/dnm-run --model "$tmp/reference_net.dnm" --layer pool4 \
  --width 109 --height 109 --count 10 --input "$tmp/in.f32" --output "$tmp/out.f32"
/usr/bin/time -f "peak RSS %M KiB (batch 1, for comparison)" build/bin/dnm-run --model "$tmp/reference_net.dnm" \
  --layer pool4 --width 109 --height 109 --count 1 --input "$tmp/in1.f32" --output "$tmp/out.f32"
