#!/usr/bin/env bash
# Builds the whole stack with a sanitizer and runs the tests under it.
#   bash scripts/sanitize.sh address   # AddressSanitizer + UndefinedBehaviorSanitizer
#   bash scripts/sanitize.sh thread    # ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."
kind=${1:?usage: sanitize.sh address|thread}
bash scripts/install-deps.sh
build=${BUILD_DIR:-build-$kind}
jobs=$(nproc 2>/dev/null || echo 2)
# -O1 with line tables only: the usual level for sanitizer builds, and it compiles in less than
# half the time of -O2 -g (the largest sources, measured), which decides the CI run's length.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPATHFINDER_WERROR=ON \
  -DPATHFINDER_SANITIZE="$kind" \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG"
# The options hold for the build too: listing a test program's cases runs it.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/scripts/tsan.supp}
cmake --build "$build" -j"$jobs"
# Sanitized code runs several times slower; give the device protocol more room.
export PATHFINDER_TIME_SCALE=${PATHFINDER_TIME_SCALE:-0.05}
ctest --test-dir "$build" --output-on-failure -j"$jobs" --timeout 600
