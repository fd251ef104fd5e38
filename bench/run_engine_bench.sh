#!/usr/bin/env bash
# Engine speed and memory on this machine, the figures quoted in bench/README.md:
#  1. Google Benchmark of the reference network (batch 5 and 10, 1 and 2 threads, per-layer
#     breakdown, products alone), with the machine's OpenBLAS settings as they are;
#  2. the same with OPENBLAS_CORETYPE and OPENBLAS_L2_SIZE unset together, in that one command,
#     so OpenBLAS picks its AVX-512 kernel on processors that have it;
#  3. PyTorch on the same network and weights, in the same run, with the ratio, after checking
#     that both compute the same "pool4" (needs python3-torch: scripts/setup.sh --training);
#  4. peak resident memory of dnm-run at batch 10.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh >/dev/null
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export PYTHONPATH="$PWD/training${PYTHONPATH:+:$PYTHONPATH}"  # the training package's model writer
/usr/bin/python3 bench/reference_net.py --export "$tmp/reference_net.dnm" >/dev/null
export FONTRIX_BENCH_MODEL="$tmp/reference_net.dnm"

echo "== 1. OpenBLAS as configured (OPENBLAS_CORETYPE=${OPENBLAS_CORETYPE:-unset})"
build/bin/deepnet_bench --benchmark_min_time=2
echo "== 2. OPENBLAS_CORETYPE and OPENBLAS_L2_SIZE unset for this command only"
env -u OPENBLAS_CORETYPE -u OPENBLAS_L2_SIZE OPENBLAS_VERBOSE=2 build/bin/deepnet_bench --benchmark_min_time=2
echo "== 3. PyTorch on the same network (OpenBLAS variables unset for both, as in 2)"
env -u OPENBLAS_CORETYPE -u OPENBLAS_L2_SIZE /usr/bin/python3 bench/compare_pytorch.py \
  --bench-binary build/bin/deepnet_bench --dnm-run build/bin/dnm-run \
  --benchmark-arg=--benchmark_filter=BM_ReferenceNet/ --benchmark-arg=--benchmark_min_time=1 --rounds 4
echo "== 4. peak memory, dnm-run at batch 10 (model, input, runnable network)"
/usr/bin/python3 -c "import numpy as np; np.random.RandomState(1).uniform(-128,127,10*109*109).astype('<f4').tofile('$tmp/in.f32')"
head -c $((109 * 109 * 4)) "$tmp/in.f32" > "$tmp/in1.f32"
/usr/bin/time -f "peak RSS %M KiB" build/bin/dnm-run --model "$tmp/reference_net.dnm" --layer pool4 \
  --width 109 --height 109 --count 10 --input "$tmp/in.f32" --output "$tmp/out.f32"
/usr/bin/time -f "peak RSS %M KiB (batch 1, for comparison)" build/bin/dnm-run --model "$tmp/reference_net.dnm" \
  --layer pool4 --width 109 --height 109 --count 1 --input "$tmp/in1.f32" --output "$tmp/out.f32"
