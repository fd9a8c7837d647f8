#!/usr/bin/env python3
"""Prints the medians and ratios of a compare.sh results file.

Usage: summarize.py MODE RESULTS_FILE
Each ratio is taken within one round (both sides measured back to back) and
the median over the rounds is printed, with the range in brackets.
"""
import collections
import statistics
import sys

FIGURES = ["rps", "p50_us", "p99_us", "p999_us", "cpu_us_per_req", "rss_mb", "errors"]

# (name, numerator label, denominator label, figure) per mode.
RATIOS = {
    "base": [
        ("lock/unlock vs loop-shape echo", "daemon_lock", "echo_shape_lock", "rps"),
        ("lock/unlock CPU vs loop-shape echo", "daemon_lock", "echo_shape_lock", "cpu_us_per_req"),
        ("open/close vs loop-shape echo", "daemon_open", "echo_shape_open", "rps"),
        ("open/close CPU vs loop-shape echo", "daemon_open", "echo_shape_open", "cpu_us_per_req"),
        ("no-op vs loop-shape echo", "daemon_noop", "echo_shape_lock", "rps"),
        ("loop-shape echo vs minimal echo", "echo_shape_lock", "echo_minimal", "rps"),
        ("Redis SET NX/DEL vs loop-shape echo", "redis_lock", "echo_shape_lock", "rps"),
    ],
    "scale": [
        ("lock/unlock, large table vs empty", "loaded_lock", "empty_lock", "rps"),
        ("open/close, large table vs empty", "loaded_open", "empty_open", "rps"),
        ("lock/unlock, ranges on one file vs empty", "onefile_lock", "empty_onefile_lock", "rps"),
    ],
    "cluster": [
        ("no-op, node a / standalone", "cluster_noop", "standalone_noop", "rps"),
        ("open/close of a published class, node a / standalone", "cluster_open",
         "standalone_open", "rps"),
        ("lock/unlock on 3 nodes / etcd transactions", "cluster3_lock", "etcd_txn", "rps"),
    ],
    "report": [
        ("p99 during reports vs idle", "reports", "idle", "p99_us"),
        ("p99.9 during reports vs idle", "reports", "idle", "p999_us"),
        ("throughput during reports vs idle", "reports", "idle", "rps"),
    ],
}


def fields(line):
    return dict(word.split("=", 1) for word in line.split() if "=" in word)


def print_sizes(runs, preloads, prefix=""):
    """One row per table size: locks, files, resident MiB, medians of rps and CPU."""
    print(f"# {prefix or 'this build'}: locks files rss_mb rps cpu_us_per_req p99_us")
    for locks in sorted(preloads, key=int):
        rounds = runs.get((f"{prefix}size_{locks}", "64"), {}).values()
        if not rounds:
            continue
        median = lambda name: statistics.median(float(r[name]) for r in rounds)
        print(f"{locks} {preloads[locks]['files']} {preloads[locks]['rss_mb']} "
              f"{median('rps'):.0f} {median('cpu_us_per_req'):.3f} {median('p99_us'):.1f}")


def main(mode, path):
    runs = collections.defaultdict(dict)  # (label, clients) -> round -> fields
    preloads = {}  # locks -> fields of the preload line
    against = {}  # the same for the build compared against
    with open(path) as results:
        for line in results:
            if line.startswith("#"):
                continue
            if not line.startswith("round=") or " result " not in line:
                if line.startswith("preload "):
                    preloads[fields(line)["count"]] = fields(line)
                if line.startswith("against_preload "):
                    against[fields(line)["count"]] = fields(line)
                if line.startswith(("preload", "against_preload", "memory", "report", "touch",
                                    "release", "death")):
                    print(line.rstrip())
                continue
            values = fields(line)
            runs[(values["label"], values["clients"])][values["round"]] = values
    if mode == "sizes":
        print_sizes(runs, preloads)
        if against:
            print("\n")  # a second data block for gnuplot (index 1)
            print_sizes(runs, against, "against_")
        return
    print(f"{'target':<22}{'clients':>8}" + "".join(f"{name:>16}" for name in FIGURES))
    for (label, clients), rounds in sorted(runs.items(), key=lambda item: (int(item[0][1]), item[0][0])):
        medians = [statistics.median(float(r.get(name, "nan")) for r in rounds.values())
                   for name in FIGURES]
        print(f"{label:<22}{clients:>8}" + "".join(f"{value:>16.2f}" for value in medians))
    for (label, clients), rounds in sorted(runs.items()):
        kinds = sorted({name for r in rounds.values() for name in r if name.startswith("p50_us_")})
        for kind in kinds:
            name = kind[len("p50_us_"):]
            p50 = statistics.median(float(r[kind]) for r in rounds.values() if kind in r)
            p99 = statistics.median(float(r["p99_us_" + name]) for r in rounds.values()
                                    if "p99_us_" + name in r)
            print(f"{label:<22}{clients:>8}  {name}: p50 {p50:.1f} us, p99 {p99:.1f} us")
    print()
    client_counts = sorted({clients for _, clients in runs}, key=int)
    for name, top, bottom, figure in RATIOS.get(mode, []):
        for clients in client_counts:
            over, under = runs.get((top, clients)), runs.get((bottom, clients))
            if not over or not under:
                continue
            ratios = [float(over[r][figure]) / float(under[r][figure])
                      for r in over if r in under and float(under[r][figure]) > 0]
            if ratios:
                print(f"{name:<44} clients={clients:<4} {statistics.median(ratios):.3f}"
                      f"  [{min(ratios):.3f} .. {max(ratios):.3f}] over {len(ratios)} rounds")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
