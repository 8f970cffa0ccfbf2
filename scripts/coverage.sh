#!/usr/bin/env bash
# Builds the stack with gcc's coverage instrumentation, runs the README's tests and reports the
# line and branch coverage of the product code per folder (gcovr), then the test share.
#   bash scripts/coverage.sh               # build in ./build-coverage
#   BUILD_DIR=b bash scripts/coverage.sh
#   COVERAGE_BEFORE=old/lines.json bash scripts/coverage.sh   # also list lines no longer run
#   COVERAGE_BEFORE_REV=<commit of that run>                   # ...followed to where they are now
# Writes <build>/coverage/summary.txt (the table printed here), summary.json (per file),
# lines.json (per line) and index.html (per file, line by line).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build-coverage}
jobs=$(nproc 2>/dev/null || echo 2)
# -O1 keeps the test programs near their usual speed (the device protocol has real waits);
# line tables still map every counted line. Bit-exact tests set their own floating-point flags.
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPATHFINDER_WERROR=ON \
  -DPATHFINDER_COVERAGE=ON \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g -DNDEBUG"
cmake --build "$build" -j"$jobs"
# Counters of an earlier run would add to this one's.
find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" --output-on-failure -j"$jobs" --timeout 300 || rc=$?
out="$build/coverage"
mkdir -p "$out"
# Product code only: the folders of the stack, not the tests, benchmarks, fuzz targets or the
# generated protobuf sources of the build folder. Branches that only exceptions or the compiler's
# own bookkeeping take are left out, as gcovr advises for C++. The counters are searched for in
# the build folder alone: another build folder may hold a link to / (Wine's drive z:).
gcovr --root . --object-directory "$build" \
  --exclude '^(tests|bench|fuzz)/' --exclude "^$build/" --exclude '.*\.pb\.(h|cc)$' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --json-summary "$out/summary.json" --json "$out/lines.json" --html-details "$out/index.html" \
  -j"$jobs" "$build" >/dev/null
python3 scripts/coverage_table.py "$out/summary.json" ${COVERAGE_BEFORE:+--before "$COVERAGE_BEFORE"} \
  ${COVERAGE_BEFORE_REV:+--before-rev "$COVERAGE_BEFORE_REV"} |
  tee "$out/summary.txt"
echo "report: $out/index.html"
bash scripts/test-share.sh | tee -a "$out/summary.txt" || true
exit "${rc:-0}"
