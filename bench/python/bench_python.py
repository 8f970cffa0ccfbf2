#!/usr/bin/env python3
"""The Python package against the C++ host on the same replayed recording, in one run.

Usage: bench_python.py --build DIR [--rounds N] [--frames N] [--json FILE]

Figures (each round alternates the Python and the C++ side; the table takes the medians):

- frames: the frames per second that reach Python through Session.frames() as NumPy arrays
  (points, directions, pose, markers of each frame taken), against the frames per second the
  module delivers to the stream's native listener on its own thread, in the same session and
  replay (the C++ host's rate, counted on the same frames); and against the frames per second
  of the C++ tool (`pathfinder scan --replay`, its summary.json) on the same recording. And
  Python's own rate (drain): a replay's frames left in a queue that holds them all, then taken
  out as fast as Python takes them, against the rate the module delivered them.
- scan: points per second of Session.scan(replay=...) from the call to the arrays in hand,
  against the C++ tool's points per second (points over the total_s of its summary.json) on the
  same recording, both writing the same files; and against the C++ scan inside the same Python
  call (points over that scan's own total_s), which leaves only the binding's cost.

The recording is a live scan of the simulated part with the console generating frames as fast
as it can (--fps 0, about 1,100 frames/s of 8,000 points here), replayed at its recorded pace:
the replay has to keep the recorded timing of the start-up (a faster one outruns init()), and
this one sends its frames about as fast as the link takes them. A replay's scan ends 8 s after
its last frame, on both sides. The stack's waits run at PATHFINDER_TIME_SCALE=0.1.
Output: one Google Benchmark-style JSON document (one entry per round), for bench_table.py.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path


def record(build, folder, frames):
    """A recording (the console's --record) of a live scan of `frames` frames at the console's
    full rate. The true matrices are imported, so that it holds the scan alone, not the
    measurement's tracker frames."""
    path, truth = folder / "scan.lrec", folder / "truth"
    subprocess.run([str(build / "annex/Lumora/lumora_console"), "--export-truth", str(truth)],
                   check=True, stdout=subprocess.DEVNULL)
    import pathfinder
    with pathfinder.Session(console_args=[f"--record={path}", "--fps", "0"]) as session:
        session.scan(frames=frames, cascade=str(truth / "cascade.bin"))
    return path


def tool_scan(build, recording, out):
    """The C++ tool on the recording; its summary.json."""
    subprocess.run([str(build / "apps/pathfinder"), "scan", "--replay", str(recording), "--out",
                    str(out)], check=True,
                   stdout=subprocess.DEVNULL)
    return json.loads((out / "summary.json").read_text())


def python_frames(recording):
    import pathfinder
    with pathfinder.Session() as session:
        with session.frames(capacity=64, replay=str(recording)) as stream:
            for frame in stream:  # every array of the frame, as a consumer would take them
                frame.points, frame.directions, frame.pose, frame.marker_ids, frame.markers
        return stream


def python_drain(recording):
    """Python's own rate: the replay's frames left in a queue that takes them all, then taken
    out as fast as Python goes."""
    import pathfinder
    with pathfinder.Session() as session:
        with session.frames(capacity=100000, replay=str(recording)) as stream:
            next(stream)
            seen = -1
            while stream.delivered != seen:  # until the replay has delivered everything
                seen = stream.delivered
                time.sleep(0.5)
            start, drained = time.perf_counter(), 0
            while stream.pending:
                frame = next(stream)
                frame.points, frame.directions, frame.pose, frame.marker_ids, frame.markers
                drained += 1
            return drained / (time.perf_counter() - start)


def python_scan(recording, out):
    import pathfinder
    with pathfinder.Session() as session:
        start = time.perf_counter()
        result = session.scan(replay=str(recording), out_dir=str(out))
        seconds = time.perf_counter() - start
        return len(result.points), seconds, result.summary


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, type=Path)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--frames", type=int, default=1000)
    parser.add_argument("--json", type=Path)
    args = parser.parse_args()
    build = args.build.resolve()
    sys.path.insert(0, str(build / "python"))
    os.environ.setdefault("PATHFINDER_TIME_SCALE", "0.1")
    os.environ.pop("LUMORA_ENDPOINT", None)

    entries = []
    with tempfile.TemporaryDirectory(prefix="bench_python_") as tmp:
        folder = Path(tmp)
        recording = record(build, folder, args.frames)
        for k in range(args.rounds):
            tool = tool_scan(build, recording, folder / f"tool{k}")
            stream = python_frames(recording)
            drain = python_drain(recording)
            points, seconds, summary = python_scan(recording, folder / f"python{k}")
            frames = {
                "python_fps": stream.received_per_second,
                "native_fps": stream.delivered_per_second,
                "tool_fps": tool["frames_per_second"],
                "drain_fps": drain,
                "frames": stream.received,
                "dropped": stream.dropped,
            }
            scan = {
                "python_points_per_s": points / seconds,
                "tool_points_per_s": tool["points"] / tool["total_s"],
                "in_call_points_per_s": points / summary["total_s"],
                "binding_ms": (seconds - summary["total_s"]) * 1e3,
                "points": points,
            }
            for name, figures, ms in (("PythonFrames", frames, 1e3 / frames["python_fps"]),
                                      ("PythonScan", scan, seconds * 1e3)):
                entries.append({"name": name, "run_name": name, "run_type": "iteration",
                                "real_time": ms, "cpu_time": ms, "time_unit": "ms", **figures})
            print(f"round {k + 1}: frames {frames}\n         scan {scan}", file=sys.stderr)

    for name, ratio in (("PythonFrames", ("python_fps", "native_fps")),
                        ("PythonFrames", ("python_fps", "tool_fps")),
                        ("PythonFrames", ("drain_fps", "native_fps")),
                        ("PythonScan", ("python_points_per_s", "tool_points_per_s")),
                        ("PythonScan", ("python_points_per_s", "in_call_points_per_s"))):
        mine = [e for e in entries if e["name"] == name]
        a = statistics.median(e[ratio[0]] for e in mine)
        b = statistics.median(e[ratio[1]] for e in mine)
        print(f"{name}: {ratio[0]} {a:.0f} / {ratio[1]} {b:.0f} = {a / b:.3f}")
    if args.json:
        args.json.write_text(json.dumps({"benchmarks": entries}, indent=2) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
