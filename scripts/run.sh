#!/usr/bin/env bash
# Main job: set up, build the host tool alone (Release), scan the simulated part and name the
# files it wrote: scan.ply, scan.png and summary.json, ready to open. No test runs here.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
out=${OUT_DIR:-out/scan-$(date +%Y%m%d-%H%M%S)}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release
# The tool brings the device module and the console with it.
cmake --build "$build" -j"$jobs" --target pathfinder_cli
status=0
"$build/apps/pathfinder" scan --out "$out" "$@" || status=$?
echo
echo "run: results in $out"
for f in scan.ply scan.png summary.json; do
  if [ -f "$out/$f" ]; then
    echo "  $(cd "$out" && pwd)/$f"
  else
    echo "  $out/$f (not written)"
  fi
done
exit "$status"
