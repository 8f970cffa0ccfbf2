#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in a build directory of their own and runs each for
# a bounded time. Not part of the test command.
#
#   bash scripts/fuzz.sh                    # every target, 60 s each
#   bash scripts/fuzz.sh 300                # 300 s each (or FUZZ_SECONDS=300)
#   FUZZ_TARGETS="config_editor_text_fuzz" bash scripts/fuzz.sh 10
#
# Conventions for fuzz/<folder>/: seed inputs in corpus/<target>/, a dictionary in
# <target>.dict or fuzz.dict. The growing corpus is kept in <build>/fuzz-corpus/<target>/,
# findings in <build>/fuzz-findings/<target>/ and the logs in <build>/fuzz-logs/.
# Exits non-zero when a target reports a finding (crash, leak, timeout, memory limit).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-${FUZZ_SECONDS:-60}}
build=${FUZZ_BUILD_DIR:-build-fuzz}
jobs=$(nproc 2>/dev/null || echo 2)
case "$seconds" in
  ''|*[!0-9]*) echo "fuzz: seconds must be a positive integer, got '$seconds'" >&2; exit 2 ;;
esac

bash scripts/install-deps.sh

# Libraries get coverage instrumentation and the sanitizers too, so that libFuzzer sees into
# them; the fuzz targets add -fsanitize=fuzzer themselves. -O1 with line tables, as in the
# sanitizer builds (scripts/sanitize.sh).
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG" \
  -DPATHFINDER_BUILD_FUZZ=ON -DPATHFINDER_BUILD_TESTS=OFF -DPATHFINDER_WERROR=ON \
  -DPATHFINDER_SANITIZE=address \
  -DCMAKE_C_FLAGS=-fsanitize=fuzzer-no-link -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link

# Every executable linked under fuzz/ is a target.
mapfile -t paths < <(ninja -C "$build" -t targets all |
  sed -n 's/^\(fuzz\/[^:]*\): CXX_EXECUTABLE_LINKER.*/\1/p' | sort -u)
targets=()
for p in "${paths[@]}"; do
  name=$(basename "$p")
  if [ -n "${FUZZ_TARGETS:-}" ] && [[ " $FUZZ_TARGETS " != *" $name "* ]]; then
    continue
  fi
  targets+=("$p")
done
if [ "${#targets[@]}" -eq 0 ]; then
  echo "fuzz: no fuzz targets (is libFuzzer available to clang?)" >&2
  exit 2
fi

names=()
for p in "${targets[@]}"; do names+=("$(basename "$p")"); done
cmake --build "$build" --target "${names[@]}" -j"$jobs"

mkdir -p "$build/fuzz-logs"
failed=()
for p in "${targets[@]}"; do
  name=$(basename "$p")
  src="fuzz/$(basename "$(dirname "$p")")"
  corpus="$build/fuzz-corpus/$name"
  findings="$build/fuzz-findings/$name"
  log="$build/fuzz-logs/$name.log"
  mkdir -p "$corpus" "$findings"
  args=(-max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
        -artifact_prefix="$findings/")
  if [ -f "$src/$name.dict" ]; then
    args+=(-dict="$src/$name.dict")
  elif [ -f "$src/fuzz.dict" ]; then
    args+=(-dict="$src/fuzz.dict")
  fi
  dirs=("$corpus")
  if [ -d "$src/corpus/$name" ]; then dirs+=("$src/corpus/$name"); fi

  echo "fuzz: $name for ${seconds} s (log $log)"
  set +e
  "$build/$p" "${args[@]}" "${dirs[@]}" >"$log" 2>&1
  rc=$?
  set -e
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  if [ "$rc" -ne 0 ]; then
    echo "fuzz: $name FAILED (exit $rc); findings in $findings" >&2
    grep -E '^(==[0-9]+==ERROR|SUMMARY|artifact_prefix|Test unit written)' "$log" >&2 || true
    failed+=("$name")
  else
    echo "fuzz: $name ok, ${runs:-?} executions, no finding"
  fi
done

if [ "${#failed[@]}" -ne 0 ]; then
  echo "fuzz: findings in ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: all ${#targets[@]} targets ran ${seconds} s without a finding"
