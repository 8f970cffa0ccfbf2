#!/usr/bin/env bash
# Main job: set up, build, and run what exists of the stack.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j"$jobs"
if [ -x "$build/apps/pathfinder" ]; then
  exec "$build/apps/pathfinder" scan --out "${OUT_DIR:-out}"
fi
echo "run: the host program is not built yet; running the test suite instead"
ctest --test-dir "$build" --output-on-failure -j"$jobs"
