#!/usr/bin/env python3
"""Line and branch coverage per top-level folder from gcovr's --json-summary file.

    coverage_table.py summary.json [--before lines.json [--before-rev REV]]

With --before (gcovr's --json file of an earlier run, which sits beside summary.json as
lines.json), also lists the lines that the earlier run executed and this one does not. With
--before-rev (the commit the earlier run measured), a line is followed to where it stands now
by comparing the file's text at REV with the working tree's: edited, removed and moved lines
are counted apart, and only lines still there and no longer run are listed.
"""
import argparse
import difflib
import json
import os
import subprocess
from collections import defaultdict


def folder_of(name):
    return name.split("/", 1)[0] if "/" in name else "."


def covered_lines(path):
    with open(path, encoding="utf-8") as f:
        files = json.load(f)["files"]
    return {entry["file"]: {line["line_number"] for line in entry["lines"]
                            if line["count"] > 0 and not line.get("gcovr/noncode", False)}
            for entry in files}


def follow(then, rev):
    """The earlier run's lines at their place in the working tree, where their text is
    unchanged; and how many are not (edited, removed, or in a file that is gone)."""
    moved, gone = {}, 0
    for name, lines in then.items():
        old = subprocess.run(["git", "show", f"{rev}:{name}"], capture_output=True, text=True)
        if old.returncode != 0 or not os.path.exists(name):
            gone += len(lines)
            continue
        with open(name, encoding="utf-8") as f:
            new = f.read().splitlines()
        where = {}
        matcher = difflib.SequenceMatcher(None, old.stdout.splitlines(), new, autojunk=False)
        for a, b, size in matcher.get_matching_blocks():
            where.update({a + k + 1: b + k + 1 for k in range(size)})
        moved[name] = {where[line] for line in lines if line in where}
        gone += len(lines) - len(moved[name])
    return moved, gone


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("summary")
    parser.add_argument("--before")
    parser.add_argument("--before-rev")
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
        gone = 0
        if args.before_rev:
            then, gone = follow(then, args.before_rev)
        lost = {name: sorted(lines - now.get(name, set())) for name, lines in then.items()}
        lost = {name: lines for name, lines in lost.items() if lines}
        if args.before_rev:
            print(f"\nlines run before that were edited, removed or moved since "
                  f"{args.before_rev}: {gone}")
        print(f"\nlines run before and not now: {sum(len(v) for v in lost.values())}")
        for name in sorted(lost):
            print(f"  {name}: {', '.join(map(str, lost[name]))}")


if __name__ == "__main__":
    main()
