#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need.
# Safe to run more than once: apt-get skips what is already installed.
#
#   scripts/install-deps.sh [--bench]
#
# --bench  also installs what only the benchmark programs of bench/ compare against (Ceres
#          Solver for the optimiser's peer); the same as PATHFINDER_BENCH_DEPS=1.
set -euo pipefail

bench="${PATHFINDER_BENCH_DEPS:-0}"
for arg in "$@"; do
  case "$arg" in
    --bench) bench=1 ;;
    *)
      echo "install-deps: unknown argument '$arg' (only --bench)" >&2
      exit 2
      ;;
  esac
done

packages=(
  build-essential cmake ninja-build pkg-config git
  protobuf-compiler libprotobuf-dev
  libeigen3-dev
  libopencv-dev
  libpcl-dev
  libembree-dev
  libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev googletest
  libbenchmark-dev
  clang clang-format libclang-rt-14-dev
  ccache gcovr
  pybind11-dev python3-dev python3-numpy python3-pytest
  libboost-dev libjs-three
  chromium chromium-driver python3-selenium python3-pil
)
if [ "$bench" = "1" ]; then
  packages+=(libceres-dev)
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
