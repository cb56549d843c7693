#!/usr/bin/env python3
"""Prints velclient's goals against the medians of one bench_peers run.

Usage: bench_goals.py RUN.json [STATIC.json]

Each ratio divides CPU-time medians of the same run. With a second file (the
run on the static library) its velclient medians are listed beside the
shared library's, for information only: the goals are the shared library's.
"""
import json
import sys

# (label, numerator, denominator, bound, sense): numerator / denominator must
# be at most ("<=") or at least (">=") bound.
GOALS = [
    ("W1 faster than Proton", "BM_W1_Lifecycle/proton", "BM_W1_Lifecycle/velclient", 20, ">="),
    ("W1 against malloc+memcpy+free", "BM_W1_Lifecycle/velclient", "BM_W1_Lifecycle/malloc", 5, "<="),
    ("W2 (16) against msgpack-c", "BM_W2_BuildMap/velclient/16", "BM_W2_BuildMap/msgpack/16", 0.6, "<="),
    ("W2 (16) faster than Proton", "BM_W2_BuildMap/proton/16", "BM_W2_BuildMap/velclient/16", 6, ">="),
    ("W2 (256) against msgpack-c", "BM_W2_BuildMap/velclient/256", "BM_W2_BuildMap/msgpack/256", 0.5, "<="),
    ("W3 against msgpack-c", "BM_W3_ReadMap/velclient", "BM_W3_ReadMap/msgpack", 0.8, "<="),
    ("W3 faster than Proton", "BM_W3_ReadMap/proton", "BM_W3_ReadMap/velclient", 6, ">="),
    ("W4 faster than Proton", "BM_W4_WireRoundTrip/proton", "BM_W4_WireRoundTrip/velclient", 10, ">="),
    ("W5 two threads against one", "BM_W5_LifecycleThreads/velclient/real_time/threads:2",
     "BM_W5_LifecycleThreads/velclient/real_time/threads:1", 1.15, "<="),
    ("W7 against two 1 MiB memcpy", "BM_W7_LargeRoundTrip/velclient", "BM_W7_LargeRoundTrip/memcpy", 1.3, "<="),
]


def medians(path):
    """CPU-time medians in ns by benchmark name."""
    with open(path) as f:
        run = json.load(f)
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    out = {}
    for b in run["benchmarks"]:
        if b.get("aggregate_name") == "median":
            out[b["run_name"]] = b["cpu_time"] * scale[b.get("time_unit", "ns")]
    return out


def main():
    shared = medians(sys.argv[1])
    print("=== goals (ratios of CPU-time medians, shared library)")
    missed = 0
    for label, num, den, bound, sense in GOALS:
        if num not in shared or den not in shared:
            print(f"{label:34} not measured (missing {num if num not in shared else den})")
            continue
        ratio = shared[num] / shared[den]
        met = ratio <= bound if sense == "<=" else ratio >= bound
        missed += not met
        print(f"{label:34} {shared[num]:12.1f} / {shared[den]:12.1f} = {ratio:6.2f}x  "
              f"goal {sense} {bound}x  {'met' if met else 'MISSED'}")
    if len(sys.argv) > 2:
        static = medians(sys.argv[2])
        print("\n=== velclient, shared library beside static (CPU-time medians, ns)")
        for name in sorted(n for n in shared if "velclient" in n and n in static):
            print(f"{name:58} {shared[name]:12.1f} {static[name]:12.1f}  {shared[name] / static[name]:5.2f}x")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
