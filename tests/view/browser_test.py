#!/usr/bin/python3
"""The live view in Debian's chromium (headless, through selenium) during a replayed scan.

A recording of a 600-frame scan is replayed with --view. The first page watches from the start;
a second one joins mid-scan, must get the cloud so far, and its browser is then killed. The first
page must end with every point the server sent (exactly the scan's cloud thinned at 1 mm), in the
finished state, with a screenshot that shows the part in the colours of small distances; the
replay keeps every frame of the recording. Last, the page asks for a 2 mm grid and gets it whole.

    browser_test.py PATHFINDER CONSOLE OUT_DIR
"""
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np
from PIL import Image
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--window-size=1200,800"]
COUNTERS = ("const v = window.pathfinderView; return v && {state: v.state, received: v.received,"
            " sent: v.sent, cloud: v.cloud, frames: v.frames, mismatches: v.mismatches}")


def browser():
    options = webdriver.ChromeOptions()
    for flag in FLAGS + ["--user-data-dir=" + tempfile.mkdtemp(prefix="pf-view-")]:
        options.add_argument(flag)
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)


def kill_browser(driver):
    """SIGKILL to every process under the browser's chromedriver: the page vanishes."""
    children = {}
    for stat in Path("/proc").glob("[0-9]*/stat"):
        try:
            ppid = int(stat.read_text().rsplit(")", 1)[1].split()[1])
        except (OSError, IndexError, ValueError):
            continue
        children.setdefault(ppid, []).append(int(stat.parent.name))
    todo = list(children.get(driver.service.process.pid, []))
    while todo:
        pid = todo.pop()
        todo += children.get(pid, [])
        os.kill(pid, signal.SIGKILL)
    driver.service.process.kill()


# Sanitizer builds run the tool several times slower (tests/view/CMakeLists.txt sets this).
PATIENCE = float(os.environ.get("PATHFINDER_TEST_PATIENCE", "1"))


def wait(what, probe, seconds=60, show=lambda: ""):
    until = time.time() + seconds * PATIENCE
    while time.time() < until:
        result = probe()
        if result:
            return result
        time.sleep(0.05)
    raise AssertionError(f"timed out waiting for {what} {show()}")


def voxels(ply, size):
    """Voxels of `size` mm that the points of a binary little-endian PLY fall into."""
    data = ply.read_bytes()
    end = data.index(b"end_header\n") + len(b"end_header\n")
    width, count, inside = 0, 0, False
    for words in (line.split() for line in data[:end].decode().splitlines()):
        if words[0] == "element":
            inside = words[1] == "vertex"
            count = int(words[2]) if inside else count
        width += words[0] == "property" and inside
    xyz = np.frombuffer(data, "<f4", count * width, end).reshape(count, width)[:, :3]
    return len(np.unique(np.floor(xyz / np.float32(size)).astype(np.int64), axis=0))


def main(pathfinder, console, out):
    # The scan runs at the console's own rate: the page must join while it lasts.
    os.environ.pop("PATHFINDER_TIME_SCALE", None)
    out = Path(out)
    work = out / "browser-test"
    shutil.rmtree(work, ignore_errors=True)
    work.mkdir(parents=True)
    run = lambda *args: subprocess.run(args, cwd=work, check=True, capture_output=True)
    run(console, "--export-truth", "truth")
    run(pathfinder, "scan", "--out", "live", "--frames", "600", "--cascade", "truth/cascade.bin",
        "--console-arg=--record=" + str(work / "scan.rec"))
    first, second = browser(), browser()
    log = open(work / "replay.txt", "w")
    tool = subprocess.Popen([pathfinder, "scan", "--out", "replay", "--replay", "scan.rec",
                             "--truth", "truth", "--cascade", "truth/cascade.bin", "--view",
                             "--view-wait"], cwd=work, stdout=log, stderr=subprocess.STDOUT)
    failures = []

    def check(ok, what):
        if not ok:
            failures.append(what)

    try:
        url = wait("the address", lambda: next((l.split()[1] for l in open(work / "replay.txt")
                                                if l.startswith("view: http")), None))
        first.get(url)
        wait("frames", lambda: (first.execute_script(COUNTERS) or {}).get("frames", 0) >= 100)
        second.get(url)
        before = first.execute_script(COUNTERS)["received"]
        joined = wait("the cloud so far on the second page",
                      lambda: (lambda c: c and c["received"] >= before and c)(
                          second.execute_script(COUNTERS)))
        check(joined["mismatches"] == 0, f"second page: {joined}")
        check(first.execute_script(COUNTERS)["state"] == "scanning", "the scan ended too soon")
        kill_browser(second)

        end = wait("the finished state", lambda: (lambda c: c["state"] == "finished" and
                                                  c["received"] == c["cloud"] and c)(
            first.execute_script(COUNTERS)), 60, lambda: first.execute_script(COUNTERS))
        cloud = voxels(work / "replay/scan.ply", 1.0)
        check(end["mismatches"] == 0 and end["received"] == end["sent"] == cloud,
              f"first page {end}, the scan's cloud at 1 mm: {cloud}")
        frames = [json.loads((work / d / "summary.json").read_text())["frames"]
                  for d in ("live", "replay")]
        check(frames[0] == frames[1] > 0, f"frames live, replayed: {frames}")

        # The screenshot: the part covers much of it, in colours; at its centre the colour of a
        # small distance (blue of the scale's low end, not the green to red of large ones).
        shot = out / "view-screenshot.png"
        first.save_screenshot(str(shot))
        image = np.asarray(Image.open(shot).convert("RGB")).astype(int)
        coloured = (image.max(axis=2) - image.min(axis=2)) > 40
        check(coloured.mean() > 0.08, f"the part covers {coloured.mean():.3f} of the picture")
        probe = first.execute_script("return window.pathfinderView.probe()")
        x, y = int(probe["x"]), int(probe["y"])
        r, g, b = image[y - 4:y + 5, x - 4:x + 5].reshape(-1, 3).mean(axis=0)
        check(b > r + 40, f"colour at the part's centre ({x}, {y}): {r:.0f} {g:.0f} {b:.0f}")

        first.execute_script("const s = document.getElementById('voxel'); s.value = '2';"
                             "s.dispatchEvent(new Event('change'))")
        coarse = voxels(work / "replay/scan.ply", 2.0)
        wait("the 2 mm grid", lambda: first.execute_script(COUNTERS)["received"] == coarse, 20,
             lambda: (first.execute_script(COUNTERS), coarse))
        tool.send_signal(signal.SIGINT)
        check(tool.wait(20 * PATIENCE) == 0, "the tool's exit code after Ctrl-C")
    finally:
        if tool.poll() is None:
            tool.kill()
        first.quit()
    print(f"screenshot: {out / 'view-screenshot.png'}")
    for f in failures:
        print("FAILED:", f)
    if not failures:
        shutil.rmtree(work)  # recordings and clouds of 300 MB; kept when something failed
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:4]))
