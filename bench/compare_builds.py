#!/usr/bin/python3
"""The engine benchmark of two build folders, run in alternating rounds on the same machine, each
case's best round kept (a shared machine's timings drift between minutes, so neither build gets
the quiet ones alone). Used for a portable build against one tuned for this processor
(-DFONTRIX_NATIVE=ON), and for this engine against an earlier commit's.

    cmake -S . -B build-native -DFONTRIX_NATIVE=ON && cmake --build build-native --target deepnet_bench
    bench/compare_builds.py build build-native [--rounds 4] [--openblas unset|Prescott] [--model M.dnm]

--openblas unset removes OPENBLAS_CORETYPE and OPENBLAS_L2_SIZE for the benchmark runs only, so
OpenBLAS (the reference, and an earlier engine's products) picks its kernel from the processor
as on an ordinary machine; --openblas Prescott forces its generic kernel, as on a processor it
does not know. --model runs a network of the data folder instead of the reference network (its
"pool4" on 109 x 109 crops).
"""
import argparse
import json
import os
import subprocess

CASES = "BM_ReferenceNet/|BM_ReferenceNetByLayer"
COUNTERS = ("conv_ms", "norm_ms", "pool_ms", "relu_ms")


def run(binary, env, min_time):
    out = subprocess.run([binary, "--benchmark_filter=" + CASES, "--benchmark_format=json",
                          "--benchmark_min_time=%g" % min_time], env=env, check=True, capture_output=True,
                         text=True).stdout
    results = {}
    for b in json.loads(out)["benchmarks"]:
        results[b["name"]] = b["real_time"]
        for counter in COUNTERS:
            if counter in b:
                results[b["name"] + " " + counter] = b[counter]
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("a", help="build folder A")
    parser.add_argument("b", help="build folder B (the yardstick: ratios are A / B)")
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--min-time", type=float, default=2.0)
    parser.add_argument("--openblas", choices=("kept", "unset", "Prescott"), default="kept")
    parser.add_argument("--model", help="a .dnm file with a \"pool4\" layer taking 109 x 109 crops")
    args = parser.parse_args()

    env = dict(os.environ)
    if args.openblas != "kept":
        env.pop("OPENBLAS_CORETYPE", None)
        env.pop("OPENBLAS_L2_SIZE", None)
    if args.openblas == "Prescott":
        env["OPENBLAS_CORETYPE"] = "Prescott"
    if args.model:
        env["FONTRIX_BENCH_MODEL"] = os.path.abspath(args.model)
    print("OPENBLAS_CORETYPE=%s OPENBLAS_L2_SIZE=%s model=%s" % (
        env.get("OPENBLAS_CORETYPE", "unset"), env.get("OPENBLAS_L2_SIZE", "unset"), args.model or "reference"))
    builds = {"A": args.a, "B": args.b}
    best = {name: {} for name in builds}
    for _ in range(args.rounds):
        for name, folder in builds.items():
            for case, value in run(os.path.join(folder, "bin", "deepnet_bench"), env, args.min_time).items():
                best[name][case] = min(value, best[name].get(case, float("inf")))
    print("%-46s %10s %10s %7s" % ("case (ms, best of %d rounds)" % args.rounds, "A", "B", "A/B"))
    for case in best["A"]:
        if case in best["B"]:
            a, b = best["A"][case], best["B"][case]
            print("%-46s %10.2f %10.2f %7.3f" % (case, a, b, a / b))


if __name__ == "__main__":
    main()
