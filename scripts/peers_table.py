#!/usr/bin/env python3
"""Prints the table of the peer comparison from the lines of its programs.

Reads lines "<store> <workload> <items> <value> <unit>" (one per figure and
round) from the files named, and prints per workload and store the median
with its min-max over the rounds and the ratio of the store's median to
this library's. Every unit is lower-is-better, so a ratio above 1 means
this library is ahead."""
import statistics
import sys
from collections import defaultdict

OURS = "lumregion"
STORES = [OURS, "lmdb", "rocksdb", "leveldb", "sqlite", "pmemobj"]
WORKLOADS = ["insert_1", "insert_100", "get_hit", "get_miss", "update_100", "delete_100",
             "recover_kill", "recover_close", "bytes_open", "bytes_closed"]


def number(value):
    return f"{value:.3g}" if value < 1000 else f"{value:.0f}"


def main(paths):
    figures = defaultdict(list)  # (workload, store) -> values
    units, items = {}, {}
    for path in paths:
        with open(path) as lines:
            for line in lines:
                fields = line.split()
                if len(fields) != 5:
                    continue
                store, workload, count, value, unit = fields
                figures[(workload, store)].append(float(value))
                units[workload], items[workload] = unit, count
    stores = [s for s in STORES if any(s == key[1] for key in figures)]
    print("| workload | items | unit | " + " | ".join(stores) + " |")
    print("|---|---|---|" + "---|" * len(stores))
    for workload in WORKLOADS:
        if workload not in units:
            continue
        ours = figures.get((workload, OURS))
        ours_median = statistics.median(ours) if ours else None
        cells = []
        for store in stores:
            values = figures.get((workload, store))
            if not values:
                cells.append("failed")
                continue
            median = statistics.median(values)
            cell = f"{number(median)} ({number(min(values))}-{number(max(values))})"
            if store != OURS and ours_median:
                ratio = median / ours_median
                cell += f" {ratio:.2f}x" if ratio < 10 else f" {ratio:.0f}x"
            cells.append(cell)
        print(f"| {workload} | {items[workload]} | {units[workload]} | " + " | ".join(cells) + " |")


if __name__ == "__main__":
    main(sys.argv[1:])
