#!/usr/bin/env bash
# The Windows check (a CI stage): builds the module stack for x86_64-w64-mingw32 with the
# project's CMake and cmake/mingw-w64.cmake, its dependencies from Debian's sources
# (scripts/windows-deps.sh, cached), and runs under Wine:
#   1. windows_check.exe: the platform layer and the configuration editor;
#   2. host_check.exe, a host of Pathfinder.dll, against the native Linux console on a loopback
#      port: init(), the transfer matrices measured, a scan of at least 100 frames, its cloud
#      compared natively with the console's truth (RMS within 3 sigma of the laser noise);
#   3. the same host built for Linux and for Windows, each fed a replay of that session: their
#      clouds must be identical to the bit (and to the live one);
#   4. tests/consumer, a host project outside the tree, configured with find_package(Pathfinder)
#      and the toolchain file against the installed (and moved) Windows prefix, built, and run
#      against the Linux console: init() and a few scan frames with their pose.
# Installs what it needs (apt-get), prints every check and how long each step took, exits
# non-zero on any failure.
#
#   bash scripts/windows-check.sh                    # everything in ./build-windows
#   WINDOWS_BUILD_DIR=b bash scripts/windows-check.sh
#   WINDOWS_CHECK_FRAMES=200 ...                     # frames of the live scan (default 120)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${WINDOWS_BUILD_DIR:-build-windows}
mkdir -p "$build"
build=$(cd "$build" && pwd)
jobs=${WINDOWS_CHECK_JOBS:-2}
frames=${WINDOWS_CHECK_FRAMES:-120}

t_all=$(date +%s.%N)
summary=()
t_step=$t_all
step() {
  local now
  now=$(date +%s.%N)
  summary+=("$(awk -v a="$t_step" -v b="$now" -v s="$1" 'BEGIN { printf "%7.1f s  %s", b - a, s }')")
  t_step=$now
}
fail() {
  echo "windows-check: FAILED: $*" >&2
  exit 1
}

# ---- tools ---------------------------------------------------------------------------------
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
missing=()
command -v x86_64-w64-mingw32-g++-posix >/dev/null || missing+=(g++-mingw-w64-x86-64-posix)
command -v dpkg-source >/dev/null || missing+=(dpkg-dev)
find_wine() {
  local w
  for w in wine64 /usr/lib/wine/wine64 wine; do
    if command -v "$w" >/dev/null; then
      command -v "$w"
      return 0
    fi
  done
  return 1
}
find_wine >/dev/null || missing+=(wine64)
if [ "${#missing[@]}" -gt 0 ]; then
  echo "windows-check: installing ${missing[*]}"
  $SUDO apt-get update
  $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
wine=$(find_wine) || fail "Wine could not be installed; the Windows programs cannot run"
# The Linux side (the console, the truth, the native host) and the headers staged for Windows.
bash scripts/install-deps.sh
step "tools: MinGW-w64 $(x86_64-w64-mingw32-g++-posix -dumpversion), $("$wine" --version)"

# ---- dependencies ----------------------------------------------------------------------------
deps_log=$build/windows-deps.log
if ! bash scripts/windows-deps.sh 2>&1 | tee "$deps_log"; then
  fail "the Windows dependencies could not be built (see above)"
fi
prefix=$(sed -n 's/^prefix //p' "$deps_log" | tail -n1)
[ -d "$prefix" ] || fail "scripts/windows-deps.sh named no prefix"
step "dependencies: $(grep -q '^windows-deps: reused' "$deps_log" && echo reused || echo built) $prefix"

# ---- the Windows build -----------------------------------------------------------------------
# Code built for Windows must not hold thread-local objects with destructors: MinGW-w64's
# emulated thread-local storage (GCC 12) frees them before their destructors run.
if grep -rn --include='*.cpp' --include='*.h' thread_local \
  platform helmsman proto sdk quill utils tracking device; then
  fail "thread_local in code built for Windows (see the README, Windows)"
fi
win=$build/windows
cmake -G Ninja -S . -B "$win" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake" \
  -DPATHFINDER_WINDOWS_DEPS="$prefix" -DPATHFINDER_WERROR=ON -DPATHFINDER_BUILD_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$build/windows-configure.log" 2>&1 ||
  fail "configuring for Windows: $build/windows-configure.log"
cmake --build "$win" -j "$jobs" || fail "the Windows build"
annex=$win/annex
for f in "$annex/Pathfinder.dll" "$annex/Helmsman.dll" "$win/lib/libPathfinder.dll.a" \
  "$win/lib/libHelmsman.dll.a" "$annex/host_check.exe" "$annex/windows_check.exe"; do
  [ -f "$f" ] || fail "missing $f"
done
echo "windows-check: built for Windows (warnings as errors):"
(cd "$win" && ls -l annex/*.dll annex/*.exe lib/*.dll.a | awk '{ printf "  %10d  %s\n", $5, $9 }')
# The host interface as the DLLs export it.
exports() {
  x86_64-w64-mingw32-objdump -p "$1" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
    awk 'NF { print $NF }' | c++filt
}
exports "$annex/Pathfinder.dll" >"$build/Pathfinder.exports"
exports "$annex/Helmsman.dll" >"$build/Helmsman.exports"
for symbol in "device::CPathfinder::CPathfinder()" "device::CPathfinder::~CPathfinder()" \
  "vtable for device::CPathfinder" "device::CPathfinder::init()" "device::CPathfinder::clear()" \
  "device::CPathfinder::controlLaserOn()" "device::CPathfinder::getTransferMatrix()" \
  "device::CPathfinder::setMarkpoint(device::tagMarkpointList const&, bool)" \
  "device::writeCascadeFile(std::__cxx11::basic_string<wchar_t, std::char_traits<wchar_t>, std::allocator<wchar_t> > const&, std::vector<device::TransformTrackingMatrix, std::allocator<device::TransformTrackingMatrix> > const&)"; do
  grep -qxF "$symbol" "$build/Pathfinder.exports" || fail "Pathfinder.dll does not export $symbol"
done
for symbol in "device::CDeviceBase::CDeviceBase(device::emDeviceNewType)" \
  "device::CDeviceBase::setHandlers(device::tagDeviceHandlers const&)"; do
  grep -qxF "$symbol" "$build/Helmsman.exports" || fail "Helmsman.dll does not export $symbol"
done
echo "windows-check: Pathfinder.dll exports $(wc -l <"$build/Pathfinder.exports") symbols" \
  "($(grep -c '^device::CPathfinder::' "$build/Pathfinder.exports") of device::CPathfinder)," \
  "Helmsman.dll $(wc -l <"$build/Helmsman.exports") (lists in $build/*.exports)"
step "Windows build: Pathfinder.dll, Helmsman.dll, import libraries, host_check.exe, windows_check.exe"

# ---- the installed Windows prefix ------------------------------------------------------------
# Installed in one place and used from another: nothing in it may name a folder of this machine.
winprefix=$build/prefix
rm -rf "$build/install" "$winprefix"
cmake --install "$win" --prefix "$build/install" >"$build/windows-install.log" 2>&1 ||
  fail "installing the Windows build: $build/windows-install.log"
mv "$build/install" "$winprefix"
for f in bin/Pathfinder.dll bin/Helmsman.dll bin/libstdc++-6.dll bin/libgcc_s_seh-1.dll \
  bin/libwinpthread-1.dll lib/libPathfinder.dll.a lib/libHelmsman.dll.a \
  include/device/Pathfinder.h include/helmsman/DeviceBase.h \
  lib/cmake/Pathfinder/PathfinderConfig.cmake lib/cmake/Pathfinder/PathfinderConfigVersion.cmake; do
  [ -f "$winprefix/$f" ] || fail "the Windows prefix has no $f"
done
found=$(grep -rIl -e "$PWD" -e "$build" "$winprefix" || true)
[ -z "$found" ] || fail "installed files name a folder of this machine: $found"
echo "windows-check: the installed Windows prefix $winprefix:"
(cd "$winprefix" && find . -type f | sort | sed 's|^\./|  |')
consumer=$build/consumer
rm -rf "$consumer"
cmake -G Ninja -S tests/consumer -B "$consumer" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64.cmake" \
  -DCMAKE_PREFIX_PATH="$winprefix" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" \
  >"$build/consumer-configure.log" 2>&1 ||
  fail "configuring tests/consumer with find_package(Pathfinder): $build/consumer-configure.log"
cmake --build "$consumer" >"$build/consumer-build.log" 2>&1 ||
  fail "building tests/consumer for Windows: $build/consumer-build.log"
step "Windows prefix: $(find "$winprefix" -type f | wc -l) files installed and moved; tests/consumer.exe built against it with find_package(Pathfinder) (Pathfinder::Host is not in this build)"

# ---- the Linux side ------------------------------------------------------------------------
lin=$build/linux
cmake -G Ninja -S . -B "$lin" -DPATHFINDER_WERROR=ON -DPATHFINDER_BUILD_TESTS=OFF \
  -DPATHFINDER_WINDOWS_HOST_CHECK=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  >"$build/linux-configure.log" 2>&1 ||
  fail "configuring the Linux side: $build/linux-configure.log"
cmake --build "$lin" -j "$jobs" --target lumora_console host_check || fail "the Linux build"
console=$lin/annex/Lumora/lumora_console
native_host=$lin/tests/windows/host_check
step "Linux build: lumora_console and the native host_check"

# ---- under Wine ------------------------------------------------------------------------------
export WINEPREFIX=$build/wineprefix WINEDEBUG=-all
run=$build/run
rm -rf "$run"
mkdir -p "$run"
console_pid=""
cleanup() {
  if [ -n "$console_pid" ]; then kill "$console_pid" 2>/dev/null || true; fi
  "$(dirname "$wine")/wineserver" -k 2>/dev/null || wineserver -k 2>/dev/null || true
}
trap cleanup EXIT
# Runs a Windows program in $run; its text-mode lines lose their CR, Wine's own notes are dropped.
wine_run() {
  local status=0
  (cd "$run" && timeout 600 "$wine" "$@") 2>&1 | tr -d '\r' | grep -v '^wine: \|^wineserver: ' ||
    status=${PIPESTATUS[0]}
  return "$status"
}
# Starts the native console on a free loopback port with `$@`; sets console_pid and endpoint.
start_console() {
  local log=$1
  shift
  "$console" --endpoint 127.0.0.1:0 --no-stdin "$@" >"$log" 2>&1 &
  console_pid=$!
  for _ in $(seq 100); do
    if grep -q "listening on" "$log" || ! kill -0 "$console_pid" 2>/dev/null; then break; fi
    sleep 0.1
  done
  endpoint=$(sed -n 's/.*listening on //p' "$log" | head -n1)
  [ -n "$endpoint" ] || fail "the console did not start: $(cat "$log")"
}
stop_console() {
  kill "$console_pid" 2>/dev/null || true
  wait "$console_pid" 2>/dev/null || true
  console_pid=""
}

echo "windows-check: windows_check.exe (platform layer, configuration editor)"
rm -rf "$annex/windows_check_work" # its files from an earlier run would fail the exclusive ones
wine_run "$annex/windows_check.exe" | tee "$run/windows_check.out" | sed 's/^/  /' || true
grep -q ' checks, 0 failed$' "$run/windows_check.out" || fail "windows_check.exe"
step "Wine: $(tail -n1 "$run/windows_check.out") of the platform layer and configuration editor"

scene=(--seed 11 --points 2000)
"$console" --export-truth "$run/truth" "${scene[@]}" >"$run/truth.log" 2>&1 ||
  fail "the console exported no truth: $(cat "$run/truth.log")"
start_console "$run/live-console.log" --record "$run/live.lrec" "${scene[@]}"
echo "windows-check: host_check.exe against the Linux console at $endpoint (live)"
LUMORA_ENDPOINT=$endpoint wine_run "$annex/host_check.exe" scan live.bin --truth truth \
  --frames "$frames" | tee "$run/live.out" | sed 's/^/  /' || fail "the live scan under Wine"
stop_console
echo "windows-check: its cloud against the truth (native)"
"$native_host" compare "$run/live.bin" "$run/truth" | tee "$run/compare.out" | sed 's/^/  /' ||
  fail "the Windows host's cloud is not within 3 sigma of the truth"
step "Wine: live scan, $(grep -h 'frames (' "$run/live.out"); $(cat "$run/compare.out")"

# The recording of that session, replayed once to each host at its recorded pace.
replay() {
  start_console "$run/replay-$1.log" --replay "$run/live.lrec" --replay-exit
  shift
  echo "windows-check: $* (replay at $endpoint)"
  LUMORA_ENDPOINT=$endpoint "$@" | tee -a "$run/replay.out" | sed 's/^/  /'
  local status=${PIPESTATUS[0]}
  wait "$console_pid" 2>/dev/null || true
  console_pid=""
  return "$status"
}
replay linux "$native_host" scan "$run/replay-linux.bin" --replay "$run/live.bin.cascade" ||
  fail "the Linux host on the replay"
replay windows wine_run "$annex/host_check.exe" scan replay-windows.bin \
  --replay live.bin.cascade || fail "the Windows host on the replay"
cmp "$run/replay-linux.bin" "$run/replay-windows.bin" ||
  fail "the replayed clouds of the Linux and the Windows host differ"
# The replay gives the frames of the live scan and the imported matrices are the measured ones.
cmp "$run/live.bin" "$run/replay-windows.bin" ||
  fail "the replayed cloud differs from the live one"
step "Wine: replay, the Linux and Windows clouds identical to each other and to the live one ($(stat -c %s "$run/replay-linux.bin") bytes, sha256 $(sha256sum "$run/replay-linux.bin" | cut -c1-16))"

# The consumer finds the DLLs (and the compiler's runtime) on the prefix's bin, as a Windows host
# would on its PATH.
start_console "$run/consumer-console.log"
echo "windows-check: tests/consumer.exe on the installed prefix, against the Linux console at $endpoint"
winpath=$("$wine" winepath -w "$winprefix/bin" 2>/dev/null | tr -d '\r')
LUMORA_ENDPOINT=$endpoint WINEPATH=$winpath wine_run "$consumer/consumer.exe" |
  tee "$run/consumer.out" | sed 's/^/  /' || fail "tests/consumer under Wine"
stop_console
step "Wine: tests/consumer on the installed prefix, $(tail -n1 "$run/consumer.out")"

echo
echo "windows-check: all passed"
printf '%s\n' "${summary[@]}"
awk -v a="$t_all" -v b="$(date +%s.%N)" 'BEGIN { printf "%7.1f s  in all\n", b - a }'
