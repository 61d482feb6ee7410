#!/usr/bin/env python3
"""Prints ours beside each peer, with the ratio, from Google Benchmark JSON files.

Benchmarks are named BM_<Work>/<side>[/<arguments>]; the sides that begin with "zel" are ours. Of repeated runs the
median counts. The ratio is ours over theirs in time: below 1 we are faster.

    compare.py results.json...
"""
import json
import sys

NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def read_times(paths):
    """{work: {side: nanoseconds}} in the order of the files."""
    works = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            runs = json.load(file)["benchmarks"]
        medians = [run for run in runs if run.get("aggregate_name") == "median"]
        for run in medians or runs:
            parts = run.get("run_name", run["name"]).split("/")
            if len(parts) < 2:
                sys.exit(f"{path}: '{run['name']}' names no side; expected BM_<Work>/<side>")
            work, side, *arguments = parts
            clocks = ("real_time", "manual_time")
            arguments = [a for a in arguments if a not in clocks and not a.startswith("iterations:")]
            time = "real_time" if any(clock in parts for clock in clocks) else "cpu_time"
            key = "/".join([work.removeprefix("BM_"), *arguments])
            works.setdefault(key, {})[side] = run[time] * NANOSECONDS[run["time_unit"]]
    return works


def readable(nanoseconds):
    for unit in ("ns", "us", "ms"):
        if nanoseconds < 1000:
            return f"{nanoseconds:.3g} {unit}"
        nanoseconds /= 1000
    return f"{nanoseconds:.3g} s"


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    print(f"{'work':34} {'ours':20} {'time':>9}   {'peer':16} {'time':>9}   {'ratio':>6}")
    for work, sides in read_times(sys.argv[1:]).items():
        ours = {side: time for side, time in sides.items() if side.startswith("zel")}
        peers = {side: time for side, time in sides.items() if not side.startswith("zel")}
        for our_side, our_time in ours.items():
            for peer, peer_time in peers.items() or [("-", None)]:
                ratio = f"{our_time / peer_time:6.2f}" if peer_time else "     -"
                theirs = readable(peer_time) if peer_time else "-"
                print(f"{work:34} {our_side:20} {readable(our_time):>9}   {peer:16} {theirs:>9}   {ratio}")


if __name__ == "__main__":
    main()
