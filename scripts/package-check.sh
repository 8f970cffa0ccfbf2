#!/usr/bin/env bash
# The installed package (a CI stage): installs a build into a temporary prefix, moves the prefix
# elsewhere, and uses it as a host project outside the tree would:
#   1. cmake --install; no installed text file names the source, build or first install folder,
#      and every RUNPATH is relative to the file ($ORIGIN);
#   2. every installed header compiles on its own with -I<prefix>/include only (warnings as
#      errors), and reads nothing but our headers and the C/C++ standard library's;
#   3. tests/consumer configured with find_package(Pathfinder CONFIG REQUIRED), built and run;
#   4. the same source built with `pkg-config --cflags --libs pathfinder`, and run;
#   5. python3 -c 'import pathfinder' with only the prefix on PYTHONPATH (when the build has the
#      Python package).
# A run passes when the installed module started the installed console by itself (on a free
# loopback port, LUMORA_ENDPOINT), five frames with laser points and a rigid pose arrived, the
# program exited 0 and no console is left. The runs are in a private PID namespace when unshare
# allows it: the module ends consoles by name, and there it sees only its own.
#
#   bash scripts/package-check.sh                  # the build in ./build (built first)
#   BUILD_DIR=b bash scripts/package-check.sh
#   PACKAGE_CHECK_KEEP=1 ...                       # keep the temporary folder and name it
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
build=${BUILD_DIR:-build}
jobs=${PACKAGE_CHECK_JOBS:-2}

t_all=$(date +%s.%N)
summary=()
t_step=$t_all
step() {
  local now
  now=$(date +%s.%N)
  summary+=("$(awk -v a="$t_step" -v b="$now" -v s="$1" 'BEGIN { printf "%7.1f s  %s", b - a, s }')")
  echo "package-check: ${summary[-1]}"
  t_step=$now
}
fail() {
  echo "package-check: FAILED: $*" >&2
  exit 1
}

tmp=$(mktemp -d "${TMPDIR:-/tmp}/pathfinder-package.XXXXXX")
cleanup() {
  if [ "${PACKAGE_CHECK_KEEP:-0}" = "1" ]; then
    echo "package-check: kept $tmp"
  else
    rm -rf "$tmp"
  fi
}
trap cleanup EXIT

# ---- build and install -----------------------------------------------------------------------
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DPATHFINDER_WERROR=ON >/dev/null
fi
build=$(cd "$build" && pwd)
cmake --build "$build" -j "$jobs" >"$tmp/build.log" 2>&1 || {
  tail -n 30 "$tmp/build.log"
  fail "the build in $build"
}
step "build: $build"

stage=$tmp/stage
cmake --install "$build" --prefix "$stage" >"$tmp/install.log" 2>&1 || {
  cat "$tmp/install.log"
  fail "cmake --install"
}
# The prefix is used from another place than it was installed to.
mkdir -p "$tmp/moved"
mv "$stage" "$tmp/moved/prefix"
prefix=$tmp/moved/prefix
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")
libdir=${libdir:-lib}
echo "package-check: installed $(find "$prefix" -type f | wc -l) files, moved to $prefix:"
(cd "$prefix" && find . -type f -o -type l | sort | sed 's|^\./|  |')

found=$(grep -rIl -e "$src" -e "$build" -e "$stage" "$prefix" || true)
[ -z "$found" ] || fail "installed files name a folder of this machine: $found"
elves=0
while IFS= read -r f; do
  [ "$(head -c 4 "$f" | od -An -c | tr -d ' ')" = "177ELF" ] || continue
  elves=$((elves + 1))
  runpath=$(readelf -d "$f" | sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]/\2/p')
  case "$runpath" in
    "" | '$ORIGIN' | '$ORIGIN/'*) ;;
    *) fail "${f#"$prefix"/} has the search path $runpath" ;;
  esac
  [ -z "$runpath" ] || echo "  RUNPATH ${f#"$prefix"/}: $runpath"
done < <(find "$prefix" -type f)
step "install: no absolute path of this machine in any text file, $elves programs and libraries with no search path or one relative to \$ORIGIN"

# ---- headers ---------------------------------------------------------------------------------
headers=0
while IFS= read -r h; do
  rel=${h#"$prefix/include/"}
  echo "#include \"$rel\"" | g++ -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Werror \
    -I "$prefix/include" -x c++ - -MD -MF "$tmp/header.d" || fail "$rel does not compile on its own"
  sed 's/^[^:]*://; s/\\$//' "$tmp/header.d" | tr ' ' '\n' | grep -v "^$prefix/\|^$" >>"$tmp/outside"
  headers=$((headers + 1))
done < <(find "$prefix/include" -name '*.h' | sort)
# Whatever else they read belongs to the C and C++ standard libraries (or the kernel's headers).
owners=$(sort -u "$tmp/outside" | xargs realpath | sort -u | xargs dpkg -S 2>&1 |
  awk -F': ' '/^dpkg-query: / { print "no package (" $NF ")"; next }
              { n = split($1, p, ", "); for (i = 1; i <= n; i++) { sub(/:.*/, "", p[i]); print p[i] } }' |
  sort -u)
others=$(echo "$owners" | grep -Ev '^(libc6-dev|libstdc\+\+-[0-9]+-dev|libgcc-[0-9]+-dev|linux-libc-dev)$' || true)
[ -z "$others" ] || fail "the installed headers read headers of $others"
step "headers: $headers compile on their own, reading besides themselves only $(echo $owners | tr ' ' ',')"

# ---- the consumer ----------------------------------------------------------------------------
isolate=()
if unshare -pf --mount-proc true 2>/dev/null; then
  isolate=(unshare -pf --mount-proc)
else
  echo "package-check: no private PID namespace: the module's clear() ends every lumora_console"
fi
console=$(find "$prefix" -type f -name lumora_console)
[ -n "$console" ] || fail "no lumora_console in the prefix"
free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# Runs a consumer program and notes which consoles run meanwhile (by their executable); the
# installed one must have run, and none may be left when the program has ended.
run_consumer() {
  local exe=$1 log=$2 status=0
  LUMORA_ENDPOINT=127.0.0.1:$(free_port) "${isolate[@]}" bash -c '
    consoles() { for p in $(pgrep -x lumora_console); do readlink "/proc/$p/exe"; done; }
    "$1" &
    pid=$!
    (while :; do consoles; sleep 0.1; done) >"$3.seen" 2>/dev/null &
    watcher=$!
    status=0
    wait "$pid" || status=$?
    kill "$watcher"
    if consoles | grep -qxF "$2"; then
      echo "a console is left behind"
      exit 99
    fi
    exit "$status"' _ "$exe" "$console" "$log" >"$log" 2>&1 || status=$?
  sed 's/^/  /' "$log"
  [ "$status" -eq 0 ] || fail "$exe exited with $status"
  grep -qxF "$console" "$log.seen" ||
    fail "the installed console did not run (seen: $(sort -u "$log.seen" | tr '\n' ' '))"
  echo "  the module started ${console#"$prefix"/}; exit code 0, no console left"
}

cmake -G Ninja -S tests/consumer -B "$tmp/consumer-cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" >"$tmp/consumer-configure.log" 2>&1 || {
  cat "$tmp/consumer-configure.log"
  fail "configuring tests/consumer with find_package(Pathfinder)"
}
cmake --build "$tmp/consumer-cmake" || fail "building tests/consumer"
step "consumer: configured with find_package(Pathfinder CONFIG REQUIRED) and built"
echo "package-check: the consumer (CMake)"
run_consumer "$tmp/consumer-cmake/consumer" "$tmp/run-cmake.log"
step "consumer (CMake): $(tail -n1 "$tmp/run-cmake.log")"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
flags=$(pkg-config --cflags --libs pathfinder) || fail "pkg-config does not find pathfinder"
echo "package-check: g++ tests/consumer/main.cpp $flags"
# shellcheck disable=SC2086 # the flags are words
g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror -o "$tmp/consumer-pc" tests/consumer/main.cpp \
  $flags -Wl,-rpath,"$(pkg-config --variable=libdir pathfinder)" || fail "building with pkg-config"
step "consumer: built with pkg-config"
echo "package-check: the consumer (pkg-config)"
run_consumer "$tmp/consumer-pc" "$tmp/run-pc.log"
step "consumer (pkg-config): $(tail -n1 "$tmp/run-pc.log")"

# ---- Python ----------------------------------------------------------------------------------
pydir=$prefix/$libdir/python3/dist-packages
if [ -d "$pydir/pathfinder" ]; then
  where=$(cd "$tmp" && env -u PYTHONHOME PYTHONPATH="$pydir" python3 -c \
    'import pathfinder; print(pathfinder.__file__)') || fail "import pathfinder"
  case "$where" in "$pydir"/*) ;; *) fail "pathfinder was imported from $where" ;; esac
  step "python: import pathfinder from ${where#"$prefix"/} with only the prefix on PYTHONPATH"
else
  step "python: skipped, the build installs no Python package (${libdir}/python3/dist-packages/pathfinder)"
fi

echo
echo "package-check: all passed"
printf '%s\n' "${summary[@]}"
awk -v a="$t_all" -v b="$(date +%s.%N)" 'BEGIN { printf "%7.1f s  in all\n", b - a }'
