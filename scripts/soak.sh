#!/usr/bin/env bash
# A long scan through the device module: the console plays the simulated part at 120 frames/s of
# 20,000 points for MINUTES minutes; resident memory is printed over time, then the frames, the
# frames lost and the latency percentiles from the console's send to the host's callback.
#   bash scripts/soak.sh MINUTES            # builds in ./build-soak (Release) and runs
#   BUILD_DIR=build bash scripts/soak.sh 10 # an existing build folder instead (benchmarks on)
# Exit code 0 when the goals held (memory growth below 1 MB after the warm-up, no frame lost,
# 99th percentile latency below 2 ms), 1 when one did not.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:?usage: soak.sh MINUTES}
build=${BUILD_DIR:-build-soak}
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPATHFINDER_WERROR=ON
fi
# The soak program lives with the measuring programs of bench/.
cmake -S . -B "$build" -DPATHFINDER_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target device_soak
seconds=$(awk -v m="$minutes" 'BEGIN { s = m * 60; if (s <= 0) exit 1; print s }') || {
  echo "soak.sh: MINUTES must be a positive number" >&2
  exit 2
}
every=$(awk -v s="$seconds" 'BEGIN { e = s / 20; if (e < 5) e = 5; if (e > 30) e = 30; print e }')
exec "$build/bench/device/device_soak" --seconds "$seconds" --fps 120 --points 20000 \
  --every "$every"
