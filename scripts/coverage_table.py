#!/usr/bin/env python3
"""Line and branch coverage per top-level folder from gcovr's --json-summary file.

    coverage_table.py summary.json [--before lines.json]

With --before (gcovr's --json file of an earlier run, which sits beside summary.json as
lines.json), also lists the lines that the earlier run executed and this one does not.
"""
import argparse
import json
import os
from collections import defaultdict


def folder_of(name):
    return name.split("/", 1)[0] if "/" in name else "."


def covered_lines(path):
    with open(path, encoding="utf-8") as f:
        files = json.load(f)["files"]
    return {entry["file"]: {line["line_number"] for line in entry["lines"]
                            if line["count"] > 0 and not line.get("gcovr/noncode", False)}
            for entry in files}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("summary")
    parser.add_argument("--before")
    args = parser.parse_args()
    with open(args.summary, encoding="utf-8") as f:
        files = json.load(f)["files"]
    folders = defaultdict(lambda: [0, 0, 0, 0])
    for entry in files:
        totals = folders[folder_of(entry["filename"])]
        totals[0] += entry["line_covered"]
        totals[1] += entry["line_total"]
        totals[2] += entry["branch_covered"]
        totals[3] += entry["branch_total"]
    everything = [sum(t[i] for t in folders.values()) for i in range(4)]

    def pct(covered, total):
        return f"{100.0 * covered / total:6.1f} %" if total else "     - "

    print(f"{'folder':<12} {'lines':>15} {'line cov':>9} {'branches':>15} {'branch cov':>10}")
    for folder in sorted(folders) + ["total"]:
        t = everything if folder == "total" else folders[folder]
        print(f"{folder:<12} {t[0]:>7}/{t[1]:<7} {pct(t[0], t[1]):>9} "
              f"{t[2]:>7}/{t[3]:<7} {pct(t[2], t[3]):>10}")

    if args.before:
        now = covered_lines(os.path.join(os.path.dirname(args.summary), "lines.json"))
        then = covered_lines(args.before)
        lost = {name: sorted(lines - now.get(name, set())) for name, lines in then.items()}
        lost = {name: lines for name, lines in lost.items() if lines}
        print(f"\nlines run before and not now: {sum(len(v) for v in lost.values())}")
        for name in sorted(lost):
            print(f"  {name}: {', '.join(map(str, lost[name]))}")


if __name__ == "__main__":
    main()
