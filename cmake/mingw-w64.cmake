# Cross-compiling for 64-bit Windows with Debian's MinGW-w64 (g++-mingw-w64-x86-64-posix: the
# posix thread model, which std::thread and std::mutex need).
#
#   cmake -G Ninja -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake \
#         -DPATHFINDER_WINDOWS_DEPS=<prefix of scripts/windows-deps.sh>
#
# PATHFINDER_WINDOWS_DEPS (or the environment variable of that name) is the prefix that holds the
# libraries built for the target (protobuf, OpenCV core, zlib) and the staged headers (Eigen, the
# PCL point containers, Boost); libraries, headers and CMake packages are looked up there and in
# the compiler's own sysroot only, programs (protoc) on the build machine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(PATHFINDER_MINGW_TRIPLE x86_64-w64-mingw32)
find_program(CMAKE_C_COMPILER NAMES ${PATHFINDER_MINGW_TRIPLE}-gcc-posix REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${PATHFINDER_MINGW_TRIPLE}-g++-posix REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${PATHFINDER_MINGW_TRIPLE}-windres)

if(NOT PATHFINDER_WINDOWS_DEPS AND DEFINED ENV{PATHFINDER_WINDOWS_DEPS})
  set(PATHFINDER_WINDOWS_DEPS "$ENV{PATHFINDER_WINDOWS_DEPS}")
endif()
# try_compile projects read this file again: hand the prefix on to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PATHFINDER_WINDOWS_DEPS)

set(CMAKE_FIND_ROOT_PATH /usr/${PATHFINDER_MINGW_TRIPLE})
if(PATHFINDER_WINDOWS_DEPS)
  list(APPEND CMAKE_FIND_ROOT_PATH ${PATHFINDER_WINDOWS_DEPS})
endif()
# A host project names installed Windows prefixes (Pathfinder's, for example) in
# CMAKE_PREFIX_PATH; they hold target files, so they are searched as roots as well.
list(APPEND CMAKE_FIND_ROOT_PATH ${CMAKE_PREFIX_PATH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs built for the target run under Wine when it is installed (try_run, test discovery).
find_program(PATHFINDER_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(PATHFINDER_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${PATHFINDER_WINE})
endif()
