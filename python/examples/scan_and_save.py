"""Scans the simulated part, saves the cloud as a PLY file and prints its RMS to the true part.

    PYTHONPATH=build/python python3 python/examples/scan_and_save.py [scan.ply]
"""
import sys

import numpy as np
import pathfinder

path = sys.argv[1] if len(sys.argv) > 1 else "scan.ply"
with pathfinder.Session(on_message=print) as session:  # starts a console, ends it again
    result = session.scan(frames=200)

# The arrays own the scan's storage: (N, 3) float32, millimetres, reference frame.
cloud = np.hstack([result.points, result.normals])
names = ["x", "y", "z", "nx", "ny", "nz"][:cloud.shape[1]]
header = ["ply", "format binary_little_endian 1.0", f"element vertex {len(cloud)}",
          *(f"property float {n}" for n in names), "end_header"]
with open(path, "wb") as f:
    f.write(("\n".join(header) + "\n").encode("ascii"))
    cloud.astype("<f4").tofile(f)

rms = np.sqrt(np.mean(result.distances ** 2))  # each point's distance to the true part
print(f"{len(cloud)} points from {result.frames} frames in {path}; RMS to the true part "
      f"{rms:.4f} mm (laser noise {result.noise_sigma_mm} mm)")
