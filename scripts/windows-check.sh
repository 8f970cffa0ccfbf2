#!/usr/bin/env bash
# Keeps the Windows build possible: cross-compiles for x86_64-w64-mingw32 (MinGW-w64, C++17, the
# project's warnings as errors) every source whose dependencies exist for that target, links the
# platform layer and the configuration editor into tests/windows/windows_check.cpp and runs it
# under Wine when Wine is available. Exits non-zero on any failure.
#   bash scripts/windows-check.sh                    # build in ./build-windows
#   WINDOWS_BUILD_DIR=b bash scripts/windows-check.sh
set -euo pipefail
cd "$(dirname "$0")/.."
build=${WINDOWS_BUILD_DIR:-build-windows}
mkdir -p "$build"
build=$(cd "$build" && pwd)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
apt_updated=0
apt_install() {
  if [ "$apt_updated" -eq 0 ]; then
    $SUDO apt-get update
    apt_updated=1
  fi
  $SUDO apt-get install -y --no-install-recommends "$@"
}

# ---- tools ---------------------------------------------------------------------------------
cxx=x86_64-w64-mingw32-g++-posix
if ! command -v "$cxx" >/dev/null; then
  echo "windows-check: installing the MinGW-w64 cross compiler"
  apt_install g++-mingw-w64-x86-64-posix
fi

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
wine=$(find_wine || true)
if [ -z "$wine" ]; then
  echo "windows-check: installing Wine"
  apt_install wine64 || echo "windows-check: Wine could not be installed"
  wine=$(find_wine || true)
fi

launcher=()
if command -v ccache >/dev/null; then launcher=(ccache); fi

# The warning set of every target (cmake/PathfinderOptions.cmake), then warnings as errors.
read -r -a warnings <<<"$(sed -n 's/^target_compile_options(pathfinder_warnings INTERFACE \(.*\))$/\1/p' \
  cmake/PathfinderOptions.cmake)"
if [ "${#warnings[@]}" -eq 0 ]; then
  echo "windows-check: cannot read the warning set from cmake/PathfinderOptions.cmake" >&2
  exit 1
fi
version=$(sed -n 's/^project(Pathfinder VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

includes=()
for d in platform helmsman utils sdk device tracking quill sim console; do
  includes+=(-I"$d/include")
done
flags=(-std=c++17 -O2 "${warnings[@]}" -Werror "${includes[@]}"
  -DPATHFINDER_VERSION_TEXT="\"$version\"" -DPATHFINDER_TRACK_VERSION="\"$version.0\"")

# ---- what is compiled ------------------------------------------------------------------------
# Whole folders: everything in them must build for Windows.
platform_sources=(platform/src/platform_common.cpp platform/src/platform_win32.cpp)
utils_sources=(utils/src/*.cpp)
helmsman_sources=(helmsman/src/*.cpp)
# Sources of other folders whose headers need no protobuf, PCL, OpenCV or Embree.
other_sources=(
  device/src/Mappings.cpp device/src/ModuleState.cpp device/src/TypeTransfer.cpp
  sdk/src/Log.cpp console/src/Fields.cpp
)
# Eigen is header-only, so the host's headers serve the Windows target as well.
eigen_sources=(quill/src/Geometry.cpp quill/src/HashGrid.cpp quill/src/MarkerLibrary.cpp)
eigen_dir=/usr/include/eigen3
if [ -d "$eigen_dir/Eigen" ]; then
  mkdir -p "$build/eigen"
  ln -sfn "$eigen_dir/Eigen" "$build/eigen/Eigen"
  flags+=(-isystem "$build/eigen")
  other_sources+=("${eigen_sources[@]}")
else
  echo "windows-check: $eigen_dir missing, quill sources not compiled"
fi
test_source=tests/windows/windows_check.cpp

# ---- compile, two at a time ------------------------------------------------------------------
object_of() { echo "$build/obj/${1%.cpp}.o"; }
compile() {
  local src=$1 obj
  obj=$(object_of "$src")
  mkdir -p "$(dirname "$obj")"
  rm -f "$obj.failed"
  if ! "${launcher[@]}" "$cxx" "${flags[@]}" -Iplatform/src -Idevice/src -Iquill/src \
    -c "$src" -o "$obj" >"$obj.log" 2>&1; then
    touch "$obj.failed"
  fi
}
all_sources=("${platform_sources[@]}" "${utils_sources[@]}" "${helmsman_sources[@]}"
  "${other_sources[@]}" "$test_source")
start=$(date +%s)
for src in "${all_sources[@]}"; do
  compile "$src" &
  while [ "$(jobs -rp | wc -l)" -ge 2 ]; do wait -n || true; done
done
wait
failed=0
for src in "${all_sources[@]}"; do
  obj=$(object_of "$src")
  if [ -e "$obj.failed" ]; then
    echo "FAILED  compile $src"
    sed 's/^/    /' "$obj.log"
    failed=1
  else
    echo "ok      compile $src"
  fi
done
if [ "$failed" -ne 0 ]; then
  echo "windows-check: compilation failed" >&2
  exit 1
fi
echo "windows-check: ${#all_sources[@]} sources compiled for x86_64-w64-mingw32 in" \
  "$(($(date +%s) - start)) s (-std=c++17 ${warnings[*]} -Werror)"
# The rest needs protobuf, PCL, OpenCV or Embree for Windows, or is the POSIX layer.
not_compiled=()
for src in */src/*.cpp; do
  case " ${all_sources[*]} " in
    *" $src "*) ;;
    *) not_compiled+=("$src") ;;
  esac
done
echo "windows-check: not compiled (${#not_compiled[@]}, see README.md): ${not_compiled[*]}"

# ---- link --------------------------------------------------------------------------------------
objects() {
  local src
  for src in "$@"; do object_of "$src"; done
}
mapfile -t platform_objects < <(objects "${platform_sources[@]}")
mapfile -t utils_objects < <(objects "${utils_sources[@]}")
mapfile -t helmsman_objects < <(objects "${helmsman_sources[@]}")
link_libs=(-static -lws2_32 -lshell32)
"$cxx" -shared -o "$build/Helmsman.dll" "${helmsman_objects[@]}" "${platform_objects[@]}" \
  "${link_libs[@]}"
echo "ok      link Helmsman.dll (helmsman + platform)"
exe="$build/windows_check.exe"
"$cxx" -o "$exe" "$(object_of "$test_source")" "${utils_objects[@]}" "${platform_objects[@]}" \
  "${link_libs[@]}"
echo "ok      link windows_check.exe (platform + configuration editor + $test_source)"

# ---- run ---------------------------------------------------------------------------------------
if [ -z "$wine" ]; then
  echo "windows-check: Wine is not available here: compiled and linked only, not run"
  exit 0
fi
export WINEPREFIX="$build/wineprefix" WINEDEBUG=-all
rm -rf "$build/windows_check_work"
echo "windows-check: running windows_check.exe with $wine (prefix $WINEPREFIX)"
status=0
# The program writes text-mode (CR LF) lines.
(cd "$build" && timeout 600 "$wine" "$exe") 2>&1 | tr -d '\r' >"$build/windows_check.out" ||
  status=$?
# Wine's own start-up notes (first use of the prefix) are not the program's output.
grep -v '^wine: \|^wineserver: ' "$build/windows_check.out" || true
"$(dirname "$wine")/wineserver" -k 2>/dev/null || wineserver -k 2>/dev/null || true
if [ "$status" -ne 0 ] || ! grep -q ' checks, 0 failed$' "$build/windows_check.out"; then
  echo "windows-check: windows_check.exe failed (exit $status)" >&2
  exit 1
fi
echo "windows-check: all passed (compile, link and run under Wine)"
