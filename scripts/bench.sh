#!/usr/bin/env bash
# Builds the Google Benchmark programs of bench/ in Release and prints one table: each figure,
# the baseline or peer it is compared with (measured in the same process), the ratio and the
# goal. With --json FILE the table is also written as JSON, so that runs can be compared.
#
#   scripts/bench.sh [--json FILE] [--build DIR] [--keep DIR]
#
# --build DIR  Release build directory (default build-bench in the repository)
# --keep DIR   keep every program's own output and Google Benchmark JSON in DIR
#
# The programs run one after another on one core each; on a shared machine run it a few times
# and compare the medians.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="$root/build-bench"
json=""
keep=""
while [[ $# -gt 0 ]]; do
    case "$1" in
        --json)
            json="$2"
            shift 2
            ;;
        --build)
            build="$2"
            shift 2
            ;;
        --keep)
            keep="$2"
            shift 2
            ;;
        -h | --help)
            sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'
            exit 0
            ;;
        *)
            echo "bench.sh: unknown argument '$1' (see --help)" >&2
            exit 2
            ;;
    esac
done

# The peers the benchmarks compare against (Ceres Solver) are installed only for benchmarks.
"$root/scripts/install-deps.sh" --bench >&2

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPATHFINDER_WERROR=ON \
    -DPATHFINDER_BUILD_BENCH=ON -DPATHFINDER_BUILD_TESTS=ON >/dev/null
targets=(bench_sdk_link device_scan_bench device_chain_bench quill_bench tracking_bench sim_bench
    _pathfinder pathfinder_cli lumora_console
    view_bench)
# The PCL peer is built only where PCL's registration module is installed.
if cmake --build "$build" --target help | grep -q '^quill_peer:'; then
    targets+=(quill_peer)
fi
# The Ceres peer of the optimiser is built only where Ceres is installed; its tests (that both
# solve the same problem to the same minimum) run before the figures are taken.
ceres_tests=0
if cmake --build "$build" --target help | grep -q '^quill_ceres:'; then
    targets+=(quill_ceres)
fi
if cmake --build "$build" --target help | grep -q '^quill_ceres_tests:'; then
    targets+=(quill_ceres_tests)
    ceres_tests=1
fi
echo "bench.sh: building ${targets[*]} in $build" >&2
cmake --build "$build" -j2 --target "${targets[@]}" >/dev/null
if [ "$ceres_tests" = "1" ]; then
    ctest --test-dir "$build" -R CeresPeer --output-on-failure >&2
fi

out="${keep:-$(mktemp -d)}"
mkdir -p "$out"
[[ -n "$keep" ]] || trap 'rm -rf "$out"' EXIT

run() {
    local name="$1" program="$2"
    shift 2
    echo "bench.sh: running $name" >&2
    "$program" --benchmark_out="$out/$name.json" --benchmark_out_format=json "$@" \
        >"$out/$name.txt" 2>&1 || echo "bench.sh: $name failed (see $out/$name.txt)" >&2
}
run link "$build/bench/sdk/bench_sdk_link"
run device "$build/bench/device/device_scan_bench" --benchmark_repetitions=5
run chain "$build/bench/device/device_chain_bench" --benchmark_repetitions=3
run quill "$build/bench/quill/quill_bench"
if [[ -x "$build/bench/quill/quill_peer" ]]; then
    run peer "$build/bench/quill/quill_peer"
fi
if [[ -x "$build/bench/quill/quill_ceres" ]]; then
    run ceres "$build/bench/quill/quill_ceres"
fi
run tracking "$build/bench/tracking/tracking_bench"
run sim "$build/bench/sim/sim_bench" --benchmark_repetitions=5
run view "$build/bench/view/view_bench" --benchmark_repetitions=3
# The Python package against the C++ host, with the interpreter it was built for.
echo "bench.sh: running python" >&2
python="$(sed -n 's/^Python3_EXECUTABLE:FILEPATH=//p' "$build/CMakeCache.txt")"
"${python:-python3}" "$root/bench/python/bench_python.py" --build "$build" \
    --json "$out/python.json" >"$out/python.txt" 2>&1 ||
    echo "bench.sh: python failed (see $out/python.txt)" >&2

python3 "$root/scripts/bench_table.py" "$out" ${json:+--json "$json"}
