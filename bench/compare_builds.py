#!/usr/bin/python3
"""What a portable build costs against one tuned for this processor (-DFONTRIX_NATIVE=ON):
the engine benchmark of two build folders, run in alternating rounds on the same machine, each
case's best round kept (a shared machine's timings drift between minutes, so neither build
gets the quiet ones alone).

    cmake -S . -B build-native -DFONTRIX_NATIVE=ON && cmake --build build-native --target deepnet_bench
    bench/compare_native.py build build-native [--rounds 4] [--openblas-defaults]

--openblas-defaults unsets OPENBLAS_CORETYPE and OPENBLAS_L2_SIZE together, for the benchmark
runs only, so OpenBLAS picks its kernel from the processor as on an ordinary machine.
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
    parser.add_argument("portable", help="build folder configured with FONTRIX_NATIVE=OFF")
    parser.add_argument("native", help="build folder configured with FONTRIX_NATIVE=ON")
    parser.add_argument("--rounds", type=int, default=4)
    parser.add_argument("--min-time", type=float, default=2.0)
    parser.add_argument("--openblas-defaults", action="store_true")
    args = parser.parse_args()

    env = dict(os.environ)
    if args.openblas_defaults:
        env.pop("OPENBLAS_CORETYPE", None)
        env.pop("OPENBLAS_L2_SIZE", None)
    print("OPENBLAS_CORETYPE=%s OPENBLAS_L2_SIZE=%s" % (env.get("OPENBLAS_CORETYPE", "unset"),
                                                        env.get("OPENBLAS_L2_SIZE", "unset")))
    builds = {"portable": args.portable, "native": args.native}
    best = {name: {} for name in builds}
    for _ in range(args.rounds):
        for name, folder in builds.items():
            for case, value in run(os.path.join(folder, "bin", "deepnet_bench"), env, args.min_time).items():
                best[name][case] = min(value, best[name].get(case, float("inf")))
    print("%-40s %12s %12s %8s" % ("case (ms, best of %d rounds)" % args.rounds, "portable", "native",
                                   "portable/native"))
    for case in best["portable"]:
        p, n = best["portable"][case], best["native"][case]
        print("%-40s %12.2f %12.2f %8.3f" % (case, p, n, p / n))


if __name__ == "__main__":
    main()
