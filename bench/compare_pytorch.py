#!/usr/bin/python3
"""Time the reference network in PyTorch and in the deepnet benchmark binary.

Usage: compare_pytorch.py --bench-binary build/bin/deepnet_bench [--model-out DIR]

The binary is run with FONTRIX_BENCH_MODEL=<exported .dnm> and
--benchmark_format=json; benchmarks named like BM_ReferenceNet/batch:10/threads:1
are matched to PyTorch runs with the same batch size and thread count.
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

import reference_net

BATCHES = (5, 10)
THREADS = (1, 2)
TO_MS = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def fail(msg):
    print("compare_pytorch: " + msg, file=sys.stderr)
    sys.exit(2)


def sanity_check(net):
    """The output must be finite and not all zero (checked with torch only)."""
    import torch

    x = torch.rand(2, 1, reference_net.INPUT_SIZE, reference_net.INPUT_SIZE,
                   generator=torch.Generator().manual_seed(1))
    with torch.inference_mode():
        out = reference_net.forward(net, x)[reference_net.OUTPUT_LAYER]
    if not bool(torch.isfinite(out).all()):
        fail("PyTorch %s output is not finite" % reference_net.OUTPUT_LAYER)
    if not bool((out != 0).any()):
        fail("PyTorch %s output is all zero" % reference_net.OUTPUT_LAYER)


def time_pytorch(net, batch, threads, warmup, repeats):
    """Mean wall time of one forward pass over the repeats, in ms (as Google Benchmark reports)."""
    import torch

    torch.set_num_threads(threads)
    x = torch.rand(batch, 1, reference_net.INPUT_SIZE, reference_net.INPUT_SIZE,
                   generator=torch.Generator().manual_seed(batch))
    times = []
    with torch.inference_mode():
        for i in range(warmup + repeats):
            t0 = time.perf_counter()
            reference_net.forward(net, x)
            if i >= warmup:
                times.append((time.perf_counter() - t0) * 1e3)
    return statistics.mean(times)


def parse_benchmarks(report):
    """{(batch, threads): ms} from Google Benchmark JSON; prefers median aggregates."""
    runs, medians = {}, {}
    for b in report.get("benchmarks", []):
        name = b.get("run_name", b.get("name", ""))
        mb = re.search(r"batch[:/](\d+)", name)
        mt = re.search(r"threads[:/](\d+)", name)
        if not (mb and mt) or "real_time" not in b:
            continue
        key = (int(mb.group(1)), int(mt.group(1)))
        unit = b.get("time_unit", "ns")
        if unit not in TO_MS:
            fail("unknown time unit %r in %s" % (unit, b.get("name")))
        ms = b["real_time"] * TO_MS[unit]
        if b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                medians[key] = ms
        else:
            runs.setdefault(key, []).append(ms)
    result = {k: statistics.median(v) for k, v in runs.items()}
    result.update(medians)
    return result


def check_agreement(dnm_run, model, net, out_dir):
    """Runs the exported model through dnm-run and PyTorch on the same images; they must agree."""
    import numpy as np
    import torch

    n, side = 3, reference_net.INPUT_SIZE
    x = np.random.RandomState(3).uniform(-128, 127, (n, 1, side, side)).astype(np.float32)
    inp, out = os.path.join(out_dir, "agree_in.f32"), os.path.join(out_dir, "agree_out.f32")
    x.astype("<f4").tofile(inp)
    proc = subprocess.run([dnm_run, "--model", model, "--layer", reference_net.OUTPUT_LAYER,
                           "--width", str(side), "--height", str(side), "--count", str(n),
                           "--input", inp, "--output", out], capture_output=True, text=True)
    if proc.returncode != 0:
        fail("dnm-run failed: " + proc.stderr.strip())
    ours = np.fromfile(out, dtype="<f4").reshape(n, -1)
    with torch.inference_mode():
        theirs = reference_net.forward(net, torch.from_numpy(x))[reference_net.OUTPUT_LAYER]
    theirs = theirs.reshape(n, -1).numpy()
    err = float(np.max(np.abs(ours - theirs)) / np.max(np.abs(theirs)))
    print("agreement: max |deepnet - PyTorch| / max |PyTorch| = %.2e over %d x %d values"
          % (err, n, theirs.shape[1]))
    if not err <= 1e-4:
        fail("deepnet and PyTorch disagree (relative error %.2e > 1e-4)" % err)


def run_binary(binary, model, extra_args):
    env = dict(os.environ, FONTRIX_BENCH_MODEL=os.path.abspath(model))
    cmd = [binary, "--benchmark_format=json"] + extra_args
    print("running: FONTRIX_BENCH_MODEL=%s %s" % (env["FONTRIX_BENCH_MODEL"], " ".join(cmd)),
          file=sys.stderr)
    proc = subprocess.run(cmd, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          universal_newlines=True)
    if proc.returncode != 0:
        sys.stderr.write(proc.stderr)
        fail("%s exited with status %d" % (binary, proc.returncode))
    try:
        report = json.loads(proc.stdout)
    except ValueError as e:
        sys.stderr.write(proc.stdout[:2000])
        fail("could not parse benchmark JSON: %s" % e)
    results = parse_benchmarks(report)
    if not results:
        fail("no benchmark named like BM_ReferenceNet/batch:N/threads:T in the output")
    return results


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bench-binary", help="deepnet Google Benchmark binary")
    ap.add_argument("--model-out", metavar="DIR",
                    help="keep the exported model here (default: a temporary directory)")
    ap.add_argument("--repeats", type=int, default=15, help="timed PyTorch runs per case and round")
    ap.add_argument("--rounds", type=int, default=3,
                    help="alternating rounds of both engines; each case keeps its best time")
    ap.add_argument("--warmup", type=int, default=3, help="untimed PyTorch runs per case")
    ap.add_argument("--benchmark-arg", action="append", default=[],
                    help="extra argument for the binary (repeatable)")
    ap.add_argument("--pytorch-only", action="store_true", help="skip the deepnet binary")
    ap.add_argument("--dnm-run", metavar="PATH",
                    help="also check that dnm-run and PyTorch give the same pool4 (rel. error <= 1e-4)")
    args = ap.parse_args()

    if not args.pytorch_only:
        if not args.bench_binary:
            fail("--bench-binary is required (or pass --pytorch-only)")
        if not os.path.isfile(args.bench_binary):
            fail("benchmark binary not found: %s (build the deepnet_bench target first)"
                 % args.bench_binary)
        if not os.access(args.bench_binary, os.X_OK):
            fail("benchmark binary is not executable: %s" % args.bench_binary)

    try:
        import torch
    except ImportError:
        fail("PyTorch is not importable from %s" % sys.executable)
    torch.set_num_interop_threads(1)

    with tempfile.TemporaryDirectory() as tmp:
        out_dir = args.model_out or tmp
        os.makedirs(out_dir, exist_ok=True)
        model = os.path.join(out_dir, "reference_net.dnm")
        net = reference_net.build_torch()
        reference_net.export(model, net)
        print("exported %s" % model, file=sys.stderr)
        sanity_check(net)
        if args.dnm_run:
            check_agreement(args.dnm_run, model, net, out_dir)

        # Both engines alternate, round after round, and each case keeps its best round (a mean
        # over many passes for both): a passing load on a shared machine then costs one round,
        # not one engine.
        ours, theirs = {}, {}
        for _ in range(max(1, args.rounds)):
            if not args.pytorch_only:
                for key, ms in run_binary(args.bench_binary, model, args.benchmark_arg).items():
                    ours[key] = min(ms, ours.get(key, ms))
            for threads in THREADS:
                for batch in BATCHES:
                    ms = time_pytorch(net, batch, threads, args.warmup, args.repeats)
                    theirs[(batch, threads)] = min(ms, theirs.get((batch, threads), ms))

    print("%5s %7s %12s %12s %8s" % ("batch", "threads", "PyTorch ms", "Fontrix ms", "ratio"))
    for key in sorted(set(theirs) | set(ours)):
        pt, fx = theirs.get(key), ours.get(key)
        cell = lambda v: "%12.2f" % v if v is not None else "%12s" % "-"  # noqa: E731
        ratio = "%8.2f" % (pt / fx) if pt is not None and fx else "%8s" % "-"
        print("%5d %7d %s %s %s" % (key[0], key[1], cell(pt), cell(fx), ratio))
    print("ratio = PyTorch / Fontrix (above 1: Fontrix is faster); best of %d alternating rounds"
          % max(1, args.rounds))


if __name__ == "__main__":
    main()
