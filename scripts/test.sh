#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds everything in Release with warnings as errors and runs
# the tests (the bit-exact tests of the point transforms are meant for the release flags).
#   bash scripts/test.sh            # build in ./build and run every test
#   BUILD_DIR=b bash scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPATHFINDER_WERROR=ON
cmake --build "$build" -j"$jobs"
ctest --test-dir "$build" --output-on-failure -j"$jobs" --timeout 300
