#!/usr/bin/env python3
"""Prints line and branch coverage per top-level folder from gcovr's --json-summary file."""
import json
import sys
from collections import defaultdict


def main(path):
    with open(path, encoding="utf-8") as f:
        files = json.load(f)["files"]
    folders = defaultdict(lambda: [0, 0, 0, 0])
    for entry in files:
        name = entry["filename"]
        folder = name.split("/", 1)[0] if "/" in name else "."
        totals = folders[folder]
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


if __name__ == "__main__":
    main(sys.argv[1])
