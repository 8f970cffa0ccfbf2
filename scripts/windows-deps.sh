#!/usr/bin/env bash
# Builds what the module needs for x86_64-w64-mingw32 from Debian's own source packages and
# installs it into a prefix in the user's cache folder, keyed by the package versions:
#
#   protobuf   libprotobuf (static), the version of the installed libprotobuf-dev, so that
#              Debian's protoc generates matching code; no protoc, no lite library, no tests
#   opencv     opencv_core (static), the version of the installed libopencv-core-dev; no other
#              module, no tests, no optional back ends
#   zlib       libz (static), which opencv_core needs
#   headers    Eigen, the PCL point containers (pcl/point_cloud.h, pcl/point_types.h and what
#              they include) and the Boost headers these include, copied from the installed
#              Debian packages (header-only for what the module uses)
#
# Sources come from Debian's archive only: a private deb-src list made from the system's Debian
# entries and a private lists folder, passed to apt through -o options; the system's apt
# configuration and lists are left alone. A second run with the same versions finds the prefix
# and only prints it.
#
#   bash scripts/windows-deps.sh            # the prefix is the last line: "prefix <path>"
#   WINDOWS_DEPS_JOBS=4 bash scripts/windows-deps.sh
#
# Needs: g++-mingw-w64-x86-64-posix, cmake, ninja-build, dpkg-dev, apt, and the Linux -dev
# packages above (scripts/install-deps.sh; scripts/windows-check.sh installs the rest).
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
jobs=${WINDOWS_DEPS_JOBS:-2}
triple=x86_64-w64-mingw32
toolchain=$repo/cmake/mingw-w64.cmake

say() { echo "windows-deps: $*"; }
fail() {
  echo "windows-deps: $*" >&2
  exit 1
}
now() { date +%s.%N; }
took() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f s", b - a }'; }

for tool in "$triple-g++-posix" "$triple-gcc-posix" "$triple-ar" cmake ninja dpkg-source apt-get; do
  command -v "$tool" >/dev/null || fail "$tool is missing (scripts/windows-check.sh installs it)"
done

# ---- versions and the key ----------------------------------------------------------------------
# The source version of an installed package ("" when it is not installed).
source_version() {
  dpkg-query -W -f='${db:Status-Abbrev} ${source:Version}\n' "$1" 2>/dev/null |
    awk '$1 == "ii" { print $2 }'
}
owner_of() { dpkg-query -S "$1" 2>/dev/null | head -n1 | cut -d: -f1; }

protobuf_version=$(source_version libprotobuf-dev)
opencv_version=$(source_version libopencv-core-dev)
zlib_version=$(source_version zlib1g)
eigen_package=$(owner_of /usr/include/eigen3/Eigen/Core)
pcl_package=$(owner_of /usr/include/pcl-1.13/pcl/point_types.h)
boost_package=$(owner_of /usr/include/boost/version.hpp)
[ -n "$protobuf_version" ] || fail "libprotobuf-dev is not installed (scripts/install-deps.sh)"
[ -n "$opencv_version" ] || fail "libopencv-core-dev is not installed (scripts/install-deps.sh)"
[ -n "$zlib_version" ] || fail "zlib1g is not installed"
[ -n "$eigen_package" ] || fail "the Eigen headers are missing (libeigen3-dev)"
[ -n "$pcl_package" ] || fail "the PCL 1.13 headers are missing (libpcl-dev)"
[ -n "$boost_package" ] || fail "the Boost headers are missing (libboost-dev)"
compiler_version=$(dpkg-query -W -f='${Version}' g++-mingw-w64-x86-64-posix 2>/dev/null ||
  "$triple-g++-posix" -dumpfullversion)

manifest="protobuf $protobuf_version
opencv $opencv_version
zlib $zlib_version
$eigen_package $(dpkg-query -W -f='${Version}' "$eigen_package")
$pcl_package $(dpkg-query -W -f='${Version}' "$pcl_package")
$boost_package $(dpkg-query -W -f='${Version}' "$boost_package")
g++-mingw-w64-x86-64-posix $compiler_version
recipe $(cat "$0" "$toolchain" | sha256sum | cut -c1-12)"
key="protobuf-${protobuf_version}_opencv-${opencv_version}_$(echo "$manifest" | sha256sum | cut -c1-12)"
key=${key//[:~]/_}
cache=${XDG_CACHE_HOME:-$HOME/.cache}/pathfinder/windows-deps
prefix=$cache/$key

if [ -f "$prefix/.complete" ]; then
  say "reused $prefix"
  echo "prefix $prefix"
  exit 0
fi

t_all=$(now)
say "building into $prefix"
echo "$manifest" | sed 's/^/  /'
work=$cache/work-$key
rm -rf "$work" "$prefix"
mkdir -p "$work" "$prefix/include" "$prefix/lib"
# A failed run leaves no half prefix behind (the work folder stays for a look).
trap '[ -f "$prefix/.complete" ] || rm -rf "$prefix"' EXIT

# ---- sources from Debian's archive -------------------------------------------------------------
t=$(now)
apt_dir=$work/apt
mkdir -p "$apt_dir/sources.list.d" "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial"
# Every Debian entry the system knows (deb822 or one-line, whatever the file), as deb-src.
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
signed=""
if [ -f "$keyring" ]; then signed=" [signed-by=$keyring]"; fi
apt-get indextargets --format '$(SITE) $(REPO_URI) $(RELEASE) $(COMPONENT) $(ORIGIN)' \
  'Identifier: Packages' | sort -u |
  awk -v s="$signed" '$5 == "Debian" || $1 ~ /^[a-z]+:\/\/([^\/]*\.)?debian\.org(\/|$)/ {
    print "deb-src" s " " $2 " " $3 " " $4 }' >"$apt_dir/sources.list.d/debian-src.list"
[ -s "$apt_dir/sources.list.d/debian-src.list" ] ||
  fail "no Debian entry in the system's apt sources (apt-get update first?)"
apt_opts=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$apt_dir/sources.list.d"
  -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache"
  -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache=)
# As root, apt would hand the downloads to its sandbox user, who cannot write to this user's
# cache, and fall back to root with a warning: say so at once.
if [ "$(id -u)" -eq 0 ]; then apt_opts+=(-o APT::Sandbox::User=root); fi
apt-get "${apt_opts[@]}" -qq update
mkdir -p "$work/src"
(cd "$work/src" && apt-get "${apt_opts[@]}" -qq source --download-only \
  "protobuf=$protobuf_version" "opencv=$opencv_version" "zlib=$zlib_version")
# The files were checked against the signed index on download; --no-check skips the .dsc
# signature, whose keyring (debian-keyring) is not needed for that.
for dsc in "$work"/src/*.dsc; do
  name=$(basename "$dsc" .dsc)
  (cd "$work/src" && dpkg-source --no-check -x "$dsc" "${name%%_*}" >/dev/null)
done
for name in protobuf opencv zlib; do
  [ -d "$work/src/$name" ] || fail "the source package $name could not be fetched"
done
say "sources fetched and unpacked in $(took "$t")"

common_cmake=(-G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DPATHFINDER_WINDOWS_DEPS="$prefix"
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG"
  -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG" -DCMAKE_INSTALL_PREFIX="$prefix"
  -DBUILD_SHARED_LIBS=OFF -DCMAKE_CROSSCOMPILING_EMULATOR=)

# ---- zlib: the library alone --------------------------------------------------------------------
t=$(now)
zsrc=$work/src/zlib
mkdir -p "$work/build/zlib"
zobjects=()
for c in adler32 compress crc32 deflate gzclose gzlib gzread gzwrite infback inffast inflate \
  inftrees trees uncompr zutil; do
  "$triple-gcc-posix" -O2 -DNDEBUG -c "$zsrc/$c.c" -o "$work/build/zlib/$c.o" &
  zobjects+=("$work/build/zlib/$c.o")
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
done
wait
for o in "${zobjects[@]}"; do
  [ -f "$o" ] || fail "zlib does not build for $triple ($(basename "$o" .o).c)"
done
"$triple-ar" rcs "$prefix/lib/libz.a" "${zobjects[@]}"
cp "$zsrc/zlib.h" "$zsrc/zconf.h" "$prefix/include/"
say "zlib $zlib_version built in $(took "$t")"

# ---- protobuf: libprotobuf and its headers -------------------------------------------------------
t=$(now)
cmake -S "$work/src/protobuf" -B "$work/build/protobuf" "${common_cmake[@]}" \
  -Dprotobuf_BUILD_TESTS=OFF -Dprotobuf_BUILD_CONFORMANCE=OFF -Dprotobuf_BUILD_EXAMPLES=OFF \
  -Dprotobuf_BUILD_PROTOC_BINARIES=OFF -Dprotobuf_BUILD_LIBPROTOC=OFF \
  -Dprotobuf_BUILD_SHARED_LIBS=OFF -Dprotobuf_WITH_ZLIB=OFF -Dprotobuf_INSTALL=ON \
  >"$work/build/protobuf.configure.log" 2>&1 ||
  fail "protobuf does not configure for $triple: $work/build/protobuf.configure.log"
cmake --build "$work/build/protobuf" --target libprotobuf -j "$jobs" \
  >"$work/build/protobuf.build.log" 2>&1 ||
  fail "protobuf does not build for $triple: $work/build/protobuf.build.log"
for component in libprotobuf protobuf-headers; do
  cmake --install "$work/build/protobuf" --component "$component" >/dev/null
done
say "protobuf $protobuf_version (libprotobuf) built in $(took "$t")"

# ---- OpenCV: the core module -------------------------------------------------------------------
t=$(now)
# Debian's repacked source has no 3rdparty folder: every bundled library is switched off and
# zlib comes from the prefix. One baseline for the instruction set, no run-time dispatch.
ocv_off=(BUILD_TESTS BUILD_PERF_TESTS BUILD_EXAMPLES BUILD_DOCS BUILD_opencv_apps BUILD_JAVA
  BUILD_opencv_python2 BUILD_opencv_python3 BUILD_opencv_world BUILD_ZLIB BUILD_PNG BUILD_JPEG
  BUILD_TIFF BUILD_WEBP BUILD_OPENJPEG BUILD_JASPER BUILD_OPENEXR BUILD_PROTOBUF BUILD_ITT
  BUILD_IPP_IW WITH_IPP WITH_ITT WITH_OPENCL WITH_LAPACK WITH_EIGEN WITH_TBB WITH_OPENMP
  WITH_PROTOBUF WITH_ADE WITH_CAROTENE WITH_VA WITH_VA_INTEL WITH_PNG WITH_JPEG WITH_TIFF
  WITH_WEBP WITH_OPENJPEG WITH_JASPER WITH_OPENEXR WITH_IMGCODEC_HDR WITH_IMGCODEC_SUNRASTER
  WITH_IMGCODEC_PXM WITH_IMGCODEC_PFM WITH_QUIRC WITH_FFMPEG WITH_GSTREAMER WITH_DSHOW WITH_MSMF
  WITH_DIRECTX WITH_WIN32UI WITH_VTK WITH_GTK WITH_QT WITH_OPENGL WITH_1394 WITH_V4L
  WITH_OPENVX WITH_HALIDE WITH_VULKAN WITH_CUDA WITH_ONNX WITH_TIMVX WITH_OBSENSOR
  WITH_OPENCL_D3D11_NV WITH_MSMF_DXVA OPENCV_GENERATE_PKGCONFIG ENABLE_PRECOMPILED_HEADERS
  OPENCV_ENABLE_NONFREE INSTALL_TESTS INSTALL_C_EXAMPLES INSTALL_PYTHON_EXAMPLES)
ocv_args=()
for o in "${ocv_off[@]}"; do ocv_args+=("-D$o=OFF"); done
cmake -S "$work/src/opencv" -B "$work/build/opencv" "${common_cmake[@]}" "${ocv_args[@]}" \
  -DBUILD_LIST=core -DCPU_BASELINE=SSE2 -DCPU_DISPATCH= -DWITH_ZLIB=ON \
  -DOPENCV_FORCE_3RDPARTY_BUILD=OFF >"$work/build/opencv.configure.log" 2>&1 ||
  fail "OpenCV does not configure for $triple: $work/build/opencv.configure.log"
cmake --build "$work/build/opencv" -j "$jobs" >"$work/build/opencv.build.log" 2>&1 ||
  fail "OpenCV core does not build for $triple: $work/build/opencv.build.log"
cmake --install "$work/build/opencv" >/dev/null
rm -rf "$prefix/share/opencv4/haarcascades" "$prefix/share/opencv4/lbpcascades"
say "OpenCV $opencv_version (core) built in $(took "$t")"

# ---- header-only parts -------------------------------------------------------------------------
t=$(now)
# Eigen with its CMake package (Eigen3::Eigen), laid out as Debian lays it out.
mkdir -p "$prefix/include/eigen3" "$prefix/share/eigen3"
cp -r /usr/include/eigen3/Eigen "$prefix/include/eigen3/"
cp -r /usr/share/eigen3/cmake "$prefix/share/eigen3/"
# The PCL containers and exactly the PCL and Boost headers they include, as the target's
# compiler sees them.
stage=$work/stage
mkdir -p "$stage"
ln -s /usr/include/pcl-1.13/pcl "$stage/pcl"
ln -s /usr/include/boost "$stage/boost"
printf '#include <pcl/point_cloud.h>\n#include <pcl/point_types.h>\n' >"$stage/probe.cpp"
"$triple-g++-posix" -std=c++17 -M -I"$stage" -I"$prefix/include/eigen3" "$stage/probe.cpp" |
  tr ' \\' '\n\n' | grep "^$stage/" | xargs realpath -m -s --relative-to="$stage" |
  grep -E '^(pcl|boost)/' | sort -u >"$work/headers.txt"
grep -q '^pcl/point_types.h$' "$work/headers.txt" || fail "the PCL headers do not compile for $triple"
(cd "$stage" && while read -r h; do
  mkdir -p "$prefix/include/$(dirname "$h")"
  cp "$(readlink -f "$h")" "$prefix/include/$h"
done <"$work/headers.txt")
say "headers staged in $(took "$t"): Eigen, $(grep -c '^pcl/' "$work/headers.txt") of PCL," \
  "$(grep -c '^boost/' "$work/headers.txt") of Boost"

echo "$manifest" >"$prefix/versions.txt"
touch "$prefix/.complete"
rm -rf "$work"
say "done in $(took "$t_all")"
echo "prefix $prefix"
