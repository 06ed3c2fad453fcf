#!/usr/bin/env python3
"""Turns quarl_bench JSON output into the README's tables.

Each figure is the best (lowest) time over the runs given; heap and
allocation figures are the same in every run. With --before, placement is
also shown as a ratio to the earlier library; profile use is always shown
as a ratio to the flat-array solver of the same run."""
import argparse
import json
from collections import defaultdict


def load(paths):
    best = defaultdict(dict)
    for path in paths:
        for run in json.load(open(path))["benchmarks"]:
            if run.get("run_type") == "aggregate":
                continue
            kind, size = run["name"].split("/")[:2]
            seconds = run["real_time"] * {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}[run["time_unit"]]
            figures = {"ns_per_edge": seconds * 1e9 / run["edges"], "edges": run["edges"],
                       "heap": run["heap_B_per_edge"], "allocs": run["allocs_per_call"]}
            key = (kind, int(size))
            if key not in best or figures["ns_per_edge"] < best[key]["ns_per_edge"]:
                best[key] = figures
    return best


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--before", nargs="*", default=[])
    parser.add_argument("--after", nargs="+", required=True)
    args = parser.parse_args()
    after = load(args.after)
    before = load(args.before) if args.before else None
    sizes = sorted({size for kind, size in after if kind == "BM_Placement"})

    print("Placement (counter selection, placement pass, encoding):\n")
    if before:
        print("| edges | before, ns/edge | after, ns/edge | after / before | heap before, B/edge | heap after, B/edge | allocations before | allocations after |")
        print("|---|---|---|---|---|---|---|---|")
    else:
        print("| edges | ns/edge | heap, B/edge | allocations per call |")
        print("|---|---|---|---|")
    for size in sizes:
        a = after[("BM_Placement", size)]
        if before:
            b = before[("BM_Placement", size)]
            print(f"| {a['edges']:,.0f} | {b['ns_per_edge']:,.0f} | {a['ns_per_edge']:,.0f} | "
                  f"{a['ns_per_edge'] / b['ns_per_edge']:.2f} | {b['heap']:,.0f} | {a['heap']:,.0f} | "
                  f"{b['allocs']:,.0f} | {a['allocs']:,.0f} |")
        else:
            print(f"| {a['edges']:,.0f} | {a['ns_per_edge']:,.0f} | {a['heap']:,.0f} | {a['allocs']:,.0f} |")

    print("\nProfile use (the entry point) against the flat-array worklist solver:\n")
    head = "| edges | flat solver, ns/edge |"
    rule = "|---|---|"
    if before:
        head += " before, ns/edge | before / flat |"
        rule += "---|---|"
    head += " after, ns/edge | after / flat | heap, B/edge | allocations per call |"
    rule += "---|---|---|---|"
    print(head)
    print(rule)
    for size in sizes:
        a, floor = after[("BM_ProfileUse", size)], after[("BM_FlatSolver", size)]
        row = f"| {a['edges']:,.0f} | {floor['ns_per_edge']:,.1f} |"
        if before:
            b, floor_before = before[("BM_ProfileUse", size)], before[("BM_FlatSolver", size)]
            row += f" {b['ns_per_edge']:,.0f} | {b['ns_per_edge'] / floor_before['ns_per_edge']:.0f}x |"
        row += (f" {a['ns_per_edge']:,.1f} | {a['ns_per_edge'] / floor['ns_per_edge']:.2f}x |"
                f" {a['heap']:,.0f} | {a['allocs']:,.0f} |")
        print(row)


if __name__ == "__main__":
    main()
