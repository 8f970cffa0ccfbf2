"""The Python package against consoles it starts: a scan on the true part, frames through the
bounded queue, Ctrl-C in a child process, a callback that raises, and no console to reach."""
import os
import signal
import socket
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

# The stack's waits ten times faster, as in the host's and the tool's tests (at 0.05 the transfer
# matrices measured are wrong, the tool's too).
os.environ["PATHFINDER_TIME_SCALE"] = "0.1"
os.environ.pop("LUMORA_ENDPOINT", None)
import pathfinder  # noqa: E402


def rms(distances):
    return float(np.sqrt(np.mean(np.square(distances, dtype=np.float64))))


@pytest.fixture(scope="class")
def truth(tmp_path_factory):
    return tmp_path_factory.mktemp("truth")


@pytest.fixture(scope="class")
def session(truth):
    with pathfinder.Session(truth_dir=str(truth)) as s:
        yield s


class TestOneSession:  # a process has one open session at a time: this one closes after them
    def test_a_scan_lies_on_the_true_part_in_arrays_that_own_its_storage(self, session, truth,
                                                                         tmp_path):
        r = session.scan(frames=40, out_dir=str(tmp_path))
        n = r.summary["points"]
        assert n > 1000 and r.points.shape == r.normals.shape == (n, 3)
        assert r.points.dtype == r.normals.dtype == np.float32
        assert not r.points.flags.owndata and r.points.base is r.normals.base  # no copy
        np.testing.assert_allclose(np.linalg.norm(r.normals, axis=1), 1.0, atol=1e-5)
        # The points measured again through the session's truth: the same RMS, within 3 sigma.
        accuracy = r.summary["accuracy"]
        measured = rms(session.truth_distances(r.points))
        assert measured == pytest.approx(accuracy["rms_mm"], rel=1e-4)
        assert measured < 3 * accuracy["noise_sigma_mm"]
        assert str(tmp_path / "scan.ply") in r.files and (tmp_path / "summary.json").exists()

        # The matrices on column vectors (p_K = M @ (p_W, 1)) against the true cascade file
        # (int32 count, then a 20-byte id and 16 doubles each: B by rows, T in 12-14).
        raw = (truth / "cascade.bin").read_bytes()
        entry = np.dtype([("id", "S20"), ("m", "<f8", 16)])
        true = np.frombuffer(raw, entry, offset=4, count=int(np.frombuffer(raw, "<i4", 1)[0]))
        matrices = session.transfer_matrices()
        assert set(matrices) == {e["id"].decode() for e in true} == \
            {t["id"] for t in r.summary["trackers"]}
        for e in true:
            m = matrices[e["id"].decode()]
            np.testing.assert_allclose(m[:3, :3], e["m"].reshape(4, 4)[:3, :3], atol=1e-4)
            np.testing.assert_allclose(m[:3, 3], e["m"][12:15], atol=0.05)
            assert m[3].tolist() == [0, 0, 0, 1]

        devices = session.devices()["devices"]
        assert sorted(d["kind"] for d in devices) == ["scanner", "tracker"]
        assert all(d["ready"] for d in devices)

    def test_frames_reach_python_as_views_and_a_full_queue_drops_the_oldest(self, session):
        with session.frames(capacity=3, frames=30) as stream:
            first = next(stream)
            time.sleep(0.5)  # the module's thread goes on; the queue keeps the newest three
            frames = [first] + list(stream)
        r = stream.result
        assert r.frames >= 30 and stream.dropped > 0
        assert stream.received == len(frames) and stream.pending == 0
        assert stream.received + stream.dropped == stream.delivered >= r.frames
        numbers = [f.number for f in frames]
        assert numbers == sorted(set(numbers))

        # A frame's laser points (scanner frame), placed by its pose, lie on the true part.
        frame = frames[-1]
        points, pose = frame.points, frame.pose
        assert points.dtype == np.float32 and points.shape[1] == 3 and len(points) > 100
        assert not points.flags.writeable and points.base is frame
        assert frame.directions.shape == points.shape and pose.shape == (4, 4)
        placed = points @ pose[:3, :3].T + pose[:3, 3]
        assert rms(session.truth_distances(placed)) < 3 * r.summary["accuracy"]["noise_sigma_mm"]

        # Live frames until the stream closes; then the laser is off and the session free.
        with session.frames() as live:
            assert len(next(live).points) > 0
        with pytest.raises(RuntimeError, match="busy with a frame stream"):
            with session.frames():
                session.devices()
        with pytest.raises(pathfinder.Error, match="another session is open") as error:
            pathfinder.Session().open()
        assert error.value.code == pathfinder.ExitCode.USAGE
        assert session.scan(frames=5).frames >= 5


CHILD = """
import signal
signal.signal(signal.SIGINT, signal.default_int_handler)
import pathfinder
def progress(p):
    if p.stage == "scanning" and p.phase == "start":
        print("scanning", flush=True)
with pathfinder.Session(on_progress=progress) as s:
    try:
        s.scan(seconds=600)
    except KeyboardInterrupt:
        print("interrupted", flush=True)
        raise
"""


def consoles_of(pid):
    """The console processes that `pid` started and that still run."""
    found = []
    for p in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{p}/stat") as f:
                name, rest = f.read().rsplit(")", 1)
            if name.endswith("(lumora_console") and int(rest.split()[1]) == pid:
                found.append(int(p))
        except OSError:
            pass
    return found


def test_ctrl_c_stops_the_scan_and_leaves_no_console():
    child = subprocess.Popen([sys.executable, "-c", CHILD], stdout=subprocess.PIPE, text=True)
    try:
        # The module writes lines of its own to the same output.
        assert "scanning" in (line.strip() for line in child.stdout)
        consoles = consoles_of(child.pid)
        assert len(consoles) == 1
        time.sleep(0.3)
        child.send_signal(signal.SIGINT)
        out, _ = child.communicate(timeout=60)  # the scan asked for 600 s
    finally:
        if child.poll() is None:
            child.kill()
    assert "interrupted" in out.split()
    assert child.returncode == -signal.SIGINT  # KeyboardInterrupt ended the interpreter
    assert not os.path.exists(f"/proc/{consoles[0]}")


def test_a_callback_that_raises_stops_the_scan_and_reaches_the_caller():
    threads = []

    def progress(p):
        threads.append(threading.current_thread())
        if len(threads) == 3:
            raise ValueError("from the callback")

    with pathfinder.Session(on_progress=progress) as s:
        with pytest.raises(ValueError, match="from the callback"):
            s.scan(seconds=600)
        r = s.scan(frames=5)  # the laser went off and the session goes on
        assert r.frames >= 5 and not r.stopped and s.listener_failures == 0
    assert set(threads) == {threading.main_thread()}


def test_verify_gives_its_figures_against_the_limits_asked_for():
    with pathfinder.Session() as s:  # the verification is its first operation
        v = s.verify(frames_per_sphere=6, limits={"PS": 1e-9})
    assert [c["name"] for c in v["characteristics"]] == ["PF", "PS", "SD", "F"]
    assert [c["pass"] for c in v["characteristics"]] == [True, False, True, True]
    assert not v["pass"] and v["characteristics"][1]["limit_mm"] == 1e-9


@pytest.fixture
def silent_port():
    with socket.socket() as s:  # bound, never listening: a connection is refused
        s.bind(("127.0.0.1", 0))
        yield s.getsockname()[1]


@pytest.mark.parametrize("options, code, message", [
    ({"start_console": False}, 3, "console missing: nothing answers at 127.0.0.1:{port}"),
    ({"console": "/nowhere/lumora_console"}, 3,
     "console missing: /nowhere/lumora_console not found"),
    ({"endpoint": "nowhere"}, 2, "not an endpoint (host:port): nowhere"),
])
def test_no_console_to_reach_is_an_error_with_the_tools_message(silent_port, options, code,
                                                                message):
    s = pathfinder.Session(**{"endpoint": f"127.0.0.1:{silent_port}", **options})
    with pytest.raises(pathfinder.Error) as error:
        s.scan(frames=5)
    assert str(error.value).startswith(message.format(port=silent_port))
    assert error.value.code == code
    assert not s.is_open
