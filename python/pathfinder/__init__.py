"""Pathfinder from Python: scans, live frames and the acceptance test of the measuring system.

A :class:`Session` brings the system up (a console on a private endpoint, the device module,
its callbacks) and down again; its scans return NumPy arrays in millimetres in the reference
frame, and its frames arrive as read-only views of the module's records::

    import pathfinder

    with pathfinder.Session() as session:
        result = session.scan(frames=200, out_dir="out")      # writes out/scan.ply
        print(result.points.shape, result.summary["accuracy"]["rms_mm"])
        with session.frames(capacity=16) as stream:
            for frame in stream:
                print(frame.number, frame.points.shape, frame.pose)
                break

Failures raise :class:`Error` with the message and exit code of the pathfinder tool.
"""
import atexit as _atexit
import enum as _enum

from ._pathfinder import (Error, Frame, FrameStream, Progress, ScanResult, Session,
                          __version__, _close_sessions)

__all__ = ["Error", "ExitCode", "Frame", "FrameStream", "Progress", "ScanResult", "Session",
           "__version__"]


class ExitCode(_enum.IntEnum):
    """The exit codes of the pathfinder tool, which :attr:`Error.code` carries."""
    OK = 0
    FAILURE = 1
    USAGE = 2
    CONSOLE = 3
    DEVICE = 4
    INPUT_FILE = 5
    UNKNOWN_KEY = 6
    OUTPUT = 7
    NO_DATA = 8
    VERIFY_FAILED = 9


# A session still open at the end of the interpreter (held by a traceback, say) is closed here,
# so that its console ends with the program.
_atexit.register(_close_sessions)
