#!/usr/bin/env python3
"""Prints a Google Benchmark JSON result as a table of ratios against each case's reference.

A case named BM_X<Impl>/N is compared with BM_X<Ref>/N, where Ref is the first implementation
listed for BM_X in the run (the benchmarks list their reference first). Cases without template
arguments are printed with their rate only. When the run has repetitions, the medians are used."""
import json
import re
import sys

PATTERN = re.compile(r"^(?P<bm>[^<]+)<(?P<impl>[^>]+)>/(?P<arg>\d+)$")


def main(path):
    with open(path) as f:
        data = json.load(f)
    rows, refs, plain = [], {}, []
    medians = [b for b in data["benchmarks"] if b.get("aggregate_name") == "median"]
    # Registration order, also when the cases ran interleaved in random order.
    order = lambda b: (b.get("family_index", 0), b.get("per_family_instance_index", 0))
    for b in sorted(medians or data["benchmarks"], key=order):
        if b.get("run_type") == "aggregate" and not medians:
            continue
        m = PATTERN.match(b.get("run_name", b["name"]))
        if not m:
            plain.append(b)
            continue
        key = (m["bm"], m["arg"])
        refs.setdefault(key, (m["impl"], b["cpu_time"]))
        rows.append((m["bm"], int(m["arg"]), m["impl"], b["cpu_time"], b["time_unit"]))
    print(f"== {path.rsplit('/', 1)[-1]} ({data['context'].get('num_cpus')} cpus)")
    for bm, arg, impl, cpu, unit in rows:
        ref_impl, ref_cpu = refs[(bm, str(arg))]
        ratio = cpu / ref_cpu if ref_cpu else float("nan")
        if impl == ref_impl:
            note = "reference"
        elif ratio >= 0.01:
            note = f"{ratio:5.2f}x {ref_impl}"
        else:
            note = f"1/{1 / ratio:,.0f} of {ref_impl}"
        print(f"{bm:<18} {impl:<14} {arg:>7} {cpu:10.2f} {unit}  {note}")
    for b in plain:
        known = {"name", "run_name", "run_type", "repetitions", "repetition_index", "threads", "iterations",
                 "real_time", "cpu_time", "time_unit", "family_index", "per_family_instance_index",
                 "aggregate_name", "aggregate_unit", "error_occurred", "error_message"}
        rate = {k: v for k, v in b.items() if k not in known and isinstance(v, (int, float))}
        extra = " ".join(f"{k}={v:,.1f}" for k, v in rate.items())
        print(f"{b.get('run_name', b['name']):<48} {b['cpu_time']:10.2f} {b['time_unit']}  {extra}")


if __name__ == "__main__":
    for p in sys.argv[1:]:
        main(p)
