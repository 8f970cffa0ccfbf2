#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds everything with warnings as errors and runs the tests.
#   bash scripts/test.sh            # build in ./build and run every test
#   BUILD_DIR=b bash scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPATHFINDER_WERROR=ON
cmake --build "$build" -j"$jobs"
ctest --test-dir "$build" --output-on-failure -j"$jobs" --timeout 300
