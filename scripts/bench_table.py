#!/usr/bin/env python3
"""One table from the Google Benchmark JSON files that scripts/bench.sh collects.

Usage: bench_table.py DIR [--json FILE]

Every figure is set against a baseline or peer measured in the same process. Times are wall
times (median of the repetitions where there are several); the CPU time is shown beside them
because the development machine is shared.
"""
import json
import statistics
import sys
from pathlib import Path

UNIT = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}


def load(directory, name):
    path = Path(directory) / f"{name}.json"
    if not path.exists():
        return []
    try:
        return json.loads(path.read_text()).get("benchmarks", [])
    except json.JSONDecodeError:
        return []


def runs(benchmarks, prefix):
    """The runs of one benchmark: its median aggregate if any, else its iterations."""
    mine = [b for b in benchmarks if b.get("run_name", b["name"]).startswith(prefix)
            and not b.get("error_occurred")]
    medians = [b for b in mine if b.get("aggregate_name") == "median"]
    if medians:
        return medians
    return [b for b in mine if b.get("run_type", "iteration") == "iteration"]


def value(benchmarks, prefix, key):
    """Median over the runs of `key`: a counter, or 'time'/'cpu' in milliseconds."""
    values = []
    for b in runs(benchmarks, prefix):
        scale = UNIT.get(b.get("time_unit", "ns"), 1e-6)
        if key == "time":
            values.append(b["real_time"] * scale)
        elif key == "cpu":
            values.append(b["cpu_time"] * scale)
        elif key in b:
            values.append(float(b[key]))
    return statistics.median(values) if values else None


def fmt(v, unit=""):
    if v is None:
        return "-"
    if abs(v) >= 100:
        return f"{v:.0f}{unit}"
    if abs(v) >= 1:
        return f"{v:.2f}{unit}"
    return f"{v:.4f}{unit}"


def count(v):
    return "-" if v is None else f"{v:.0f}"


def main():
    if len(sys.argv) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    directory = sys.argv[1]
    json_out = sys.argv[sys.argv.index("--json") + 1] if "--json" in sys.argv else None
    link, device, quill, peer, ceres, tracking, sim, chain, view, python = (
        load(directory, n)
        for n in ("link", "device", "quill", "peer", "ceres", "tracking", "sim", "chain", "view",
                  "python"))
    rows = []

    def row(figure, measured, unit, baseline_name, baseline, ratio, goal, met, cpu=None):
        rows.append({
            "figure": figure,
            "measured": measured,
            "cpu_ms": cpu,
            "unit": unit,
            "baseline": baseline_name,
            "baseline_value": baseline,
            "ratio": ratio,
            "goal": goal,
            "met": met,
        })

    def div(a, b):
        return a / b if a is not None and b not in (None, 0) else None

    # Link: throughput and latency at 120 Hz against raw loopback TCP of the same bytes.
    lm, rm = value(link, "BM_LinkThroughput20k", "link_MBps"), value(
        link, "BM_LinkThroughput20k", "raw_MBps")
    row("link throughput, 20,000-point frames", lm, "MB/s", "raw loopback TCP", rm, div(lm, rm),
        "-", None)
    for p in ("p50", "p99"):
        lv = value(link, "BM_LinkLatency120fps", f"link_{p}_us")
        rv = value(link, "BM_LinkLatency120fps", f"raw_{p}_us")
        goal = "< 2000 us" if p == "p99" else "-"
        met = (lv < 2000) if (p == "p99" and lv is not None) else None
        row(f"link latency {p} at 120 Hz", lv, "us", "raw loopback TCP", rv, div(lv, rv), goal,
            met)

    # Frame handling and the laser transform against copies of the same bytes.
    cb, cp = value(device, "BM_CallBackScanData", "time"), value(device, "BM_FrameCopyBaseline",
                                                                 "time")
    r = div(cb, cp)
    row("CallBack_ScanData, 20,000-point frame", cb, "ms", "copy of the frame", cp, r,
        "time ratio <= 2", r is not None and r <= 2, value(device, "BM_CallBackScanData", "cpu"))
    # The point transforms on each instruction-set path (a path the processor lacks has no row
    # figures); the goal holds for the AVX2 and AVX-512 laser rows, the rest are reported.
    copy = value(device, "BM_PointCopyBaseline", "time")
    marker_copy = value(device, "BM_MarkerCopyBaseline", "time")
    for path in ("avx512", "avx2", "sse2", "scalar"):
        wide = path in ("avx512", "avx2")
        for reading in ("column", "row"):
            name = f"BM_TransformLaser/{path}/{reading}"
            t = value(device, name, "time")
            r = div(copy, t)
            row(f"TransformScanData_Laser, 1M points, {reading}, {path}", t, "ms",
                "copy of the array", copy, r, "throughput ratio >= 0.8" if wide else "-",
                (r is not None and r >= 0.8) if wide else None, value(device, name, "cpu"))
        if wide:
            # What no kernel of this path can beat: the same conversions and arithmetic on
            # coordinates already apart (see bench/device/ScanBench.cpp).
            name = f"BM_TransformBound/{path}"
            t = value(device, name, "time")
            row(f"bound of any laser kernel, 1M points, {path}", t, "ms", "copy of the array",
                copy, div(copy, t), "-", None, value(device, name, "cpu"))
        name = f"BM_TransformMarkers/{path}/column"
        t = value(device, name, "time")
        row(f"TransformScanData_MarkPoint, 1M points, column, {path}", t, "ms",
            "copy of the array", marker_copy, div(marker_copy, t), "-", None,
            value(device, name, "cpu"))

    # Registration.
    rt = value(quill, "BM_RealTimeLoop/", "p50_ms")
    naive = value(quill, "BM_RealTimeLoop_NaivePairPruned", "time")
    row("real-time registration, 30 vs 5,000 (p50)", rt, "ms", "naive RANSAC (pair-pruned)",
        naive, div(naive, rt), "-", None)
    oo = value(quill, "BM_OneOff/", "p50_ms")
    naive = value(quill, "BM_OneOff_NaivePairPruned", "time")
    row("one-off registration, 30 vs 300 (p50)", oo, "ms", "naive RANSAC (pair-pruned)", naive,
        div(naive, oo), "< 0.1 ms", oo is not None and oo < 0.1)
    if peer:
        ours = value(peer, "BM_Peer_Quill", "p50_ms")
        for name, label in (("BM_Peer_PclFpcs", "PCL FPCS"),
                            ("BM_Peer_PclPrerejective", "PCL prerejective")):
            theirs = value(peer, name, "p50_ms")
            right = value(peer, name, "right")
            scenes = value(peer, name, "scenes")
            ours_right = value(peer, "BM_Peer_Quill", "right")
            ours_runs = value(peer, "BM_Peer_Quill", "scenes")
            label += f" ({count(right)}/{count(scenes)} right; ours {count(ours_right)}/" \
                f"{count(ours_runs)})"
            row("one-off registration against the peer (p50)", ours, "ms", label, theirs,
                div(theirs, ours), "-", None)
    else:
        row("one-off registration against the peer", None, "ms", "PCL not installed", None, None,
            "-", None)

    # Optimiser: against plain alternating least squares, and against Ceres Solver on the same
    # problem (time, and the final cost of each evaluated by Ceres).
    opt = value(quill, "BM_Optimiser/", "time")
    als = value(quill, "BM_Optimiser_NaiveALS", "time")
    row("optimiser, 500 frames of 30 markers", opt, "ms", "alternating least squares", als,
        div(als, opt), "< 10 ms", opt is not None and opt < 10, value(quill, "BM_Optimiser/",
                                                                      "cpu"))
    # The first run of a fresh optimiser also pays for the memory its buffers take.
    first = value(quill, "BM_Optimiser_FirstRun", "time")
    row("optimiser, the same on a fresh optimiser", first, "ms", "alternating least squares", als,
        div(als, first), "-", None, value(quill, "BM_Optimiser_FirstRun", "cpu"))

    if ceres:
        for markers in ("30", "150"):
            ours = value(ceres, f"BM_Optimiser_Ours/{markers}/", "time")
            for solver, label, goal in (("0", "sparse Schur", ">= 20x, cost within 1e-6"),
                                        ("1", "iterative Schur", "-")):
                name = f"BM_Optimiser_Ceres/{markers}/{solver}/"
                theirs = value(ceres, name, "time")
                rel = value(ceres, name, "rel_diff")
                r = div(theirs, ours)
                met = None
                if goal != "-":
                    met = r is not None and rel is not None and r >= 20 and abs(rel) <= 1e-6
                row(f"optimiser against Ceres, 500 frames of {markers} markers", ours, "ms",
                    f"Ceres {label}, 1 thread (cost ours/Ceres - 1 = "
                    f"{'-' if rel is None else f'{rel:.1e}'})", theirs, r, goal, met,
                    value(ceres, f"BM_Optimiser_Ours/{markers}/", "cpu"))
    else:
        row("optimiser against Ceres", None, "ms", "Ceres not installed", None, None,
            ">= 20x, cost within 1e-6", None)

    # Tracking.
    st, sb = value(tracking, "BM_StaticEvaluation", "time"), value(tracking, "BM_StaticBaseline",
                                                                   "time")
    row("static tracking, one evaluation", st, "ms", "known-correspondence fit", sb, div(st, sb),
        "< 16 ms", st is not None and st < 16, value(tracking, "BM_StaticEvaluation", "cpu"))
    dy, db = value(tracking, "BM_DynamicFrame", "time"), value(tracking, "BM_DynamicBaseline",
                                                               "time")
    dycpu = value(tracking, "BM_DynamicFrame", "cpu")
    row("dynamic tracking, 30 vs 300", dy, "ms", "known-correspondence fit", db, div(dy, db),
        "< 0.03 ms", dy is not None and dy < 0.03, dycpu)
    pc = value(tracking, "BM_DynamicMatcherIndexPerCall", "time")
    row("dynamic tracking, 30 vs 300", dy, "ms", "matcher with a per-call index", pc,
        div(pc, dy), "-", None, dycpu)

    # Simulator.
    fps = value(sim, "FrameGeneration", "frames/s")
    row("simulator frames of 20,000 points", fps, "frames/s", "goal", 1000.0, div(fps, 1000.0),
        ">= 1000 frames/s", fps is not None and fps >= 1000)
    em, pl = value(sim, "RayCastEmbree", "rays/s"), value(sim, "RayCastPlainLoop", "rays/s")
    row("ray casting", em, "rays/s", "loop over every triangle", pl, div(em, pl), "-", None)

    # The whole chain: console -> SDK -> module -> host cloud, against raw loopback TCP of the
    # same bytes per frame. The replay (a recording of the same scan played as fast as the link
    # takes it) is the goal's row; the live console (frame generation in the chain), a host
    # cloud in a std::vector (a page fault per 4 KB as it grows) and a callback without the
    # cloud explain it, without a goal of their own.
    for arg, label in (("1/1", "console replaying a recording"),
                       ("0/1", "live console (frame generation the limit)"),
                       ("1/2", "replay, host cloud a growing std::vector"),
                       ("1/0", "replay, host callback without the cloud")):
        name = f"BM_ChainToHostCloud/{arg}/"
        fps, raw = value(chain, name, "frames_per_s"), value(chain, name, "raw_frames_per_s")
        r = div(fps, raw)
        cores = value(chain, name, "console_cores"), value(chain, name, "host_cores")
        used = "" if None in cores else \
            f" (CPU: console {cores[0]:.2f}, host {cores[1]:.2f} cores)"
        goal = ">= 0.5x" if arg == "1/1" else "-"
        row(f"whole chain console -> host cloud, {label}", fps, "frames/s",
            "raw loopback TCP" + used, raw, r, goal,
            (r is not None and r >= 0.5) if goal != "-" else None)

    # The live view on a replayed 125 frames/s scan: the scan's rate with two pages watching
    # against the same replay without a view, and the CPU the view spends (its thread and its
    # frame listener) per second of scanning.
    watched = value(view, "BM_ViewOnReplay", "frames_per_s")
    alone = value(view, "BM_ViewOnReplay", "alone_frames_per_s")
    r = div(watched, alone)
    row("scan with two pages watching the live view", watched, "frames/s",
        "the same replay without a view", alone, r, ">= 0.95x", r is not None and r >= 0.95)
    share = value(view, "BM_ViewOnReplay", "view_core_share")
    row("CPU of the live view at 125 frames/s (server thread and listener)", share, "cores",
        "one core", 1.0, share, "<= 0.10", share is not None and share <= 0.10)

    # The Python package against the C++ host on the same replayed recording
    # (bench/python/bench_python.py): frames into NumPy arrays, and a scan's cloud.
    for figure, key, unit, label, base, goal in (
            ("frames into NumPy through Session.frames()", "python_fps", "frames/s",
             "native listener, same session", "native_fps", ">= 0.9x"),
            ("frames into NumPy through Session.frames()", "python_fps", "frames/s",
             "C++ tool, same recording", "tool_fps", "-"),
            ("frames drained from the queue by Python", "drain_fps", "frames/s",
             "native listener, same session", "native_fps", "-"),
            ("Session.scan() cloud", "python_points_per_s", "points/s",
             "C++ tool, same recording", "tool_points_per_s", ">= 0.9x"),
            ("Session.scan() cloud", "python_points_per_s", "points/s",
             "C++ scan inside the same call", "in_call_points_per_s", "-")):
        name = "PythonFrames" if "fps" in key else "PythonScan"
        mine, theirs = value(python, name, key), value(python, name, base)
        r = div(mine, theirs)
        row(figure, mine, unit, label, theirs, r, goal,
            (r is not None and r >= 0.9) if goal != "-" else None)

    header = ("figure", "measured", "cpu", "baseline / peer", "baseline", "ratio", "goal",
              "status")
    table = [header]
    for r in rows:
        status = "-" if r["met"] is None else ("met" if r["met"] else "missed")
        if r["measured"] is None and r["goal"] != "-":
            status = "not measured"
        table.append((r["figure"], fmt(r["measured"], " " + r["unit"]),
                      fmt(r["cpu_ms"], " ms") if r["cpu_ms"] is not None else "-",
                      r["baseline"], fmt(r["baseline_value"]), fmt(r["ratio"], "x"), r["goal"],
                      status))
    widths = [max(len(str(t[c])) for t in table) for c in range(len(header))]
    for k, t in enumerate(table):
        print("  ".join(str(v).ljust(w) for v, w in zip(t, widths)).rstrip())
        if k == 0:
            print("  ".join("-" * w for w in widths))
    if json_out:
        Path(json_out).write_text(json.dumps({"rows": rows}, indent=2) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
