# What the Windows build does differently (included from the top-level CMakeLists.txt on WIN32).
#
# The module stack (platform, proto, helmsman, sdk, quill, utils, tracking, device) needs
# protobuf, Eigen, OpenCV core and PCL's point containers. The simulator, and with it the
# console, the host tools and the test suite, needs Embree, nlohmann-json and PCL's I/O as
# well: those folders join only when these packages are found (a package manager's PCL, for
# example); with the prefix of scripts/windows-deps.sh they are left out.

# PCL: the point containers the module uses are header-only. A full PCL package is used when
# there is one; otherwise its headers (with the Boost headers they include) suffice.
find_package(PCL QUIET COMPONENTS common)
if(NOT PCL_FOUND)
  find_path(PATHFINDER_PCL_INCLUDE_DIR pcl/point_types.h REQUIRED)
  set(PCL_INCLUDE_DIRS ${PATHFINDER_PCL_INCLUDE_DIR})
  set(PCL_LIBRARIES "")
endif()

find_package(embree 3 QUIET)
find_package(nlohmann_json 3 QUIET)
find_library(PATHFINDER_PCL_IO_PLY NAMES pcl_io_ply)
set(PATHFINDER_SKIPPED_FOLDERS "")
if(NOT embree_FOUND OR NOT nlohmann_json_FOUND OR NOT PATHFINDER_PCL_IO_PLY)
  set(PATHFINDER_SKIPPED_FOLDERS sim console apps host view python)
  message(STATUS "Windows: building the module stack; sim, console, host tools and tests need "
                 "Embree, nlohmann-json and PCL's I/O for Windows, which were not found")
  foreach(part TESTS BENCH FUZZ)
    if(PATHFINDER_BUILD_${part})
      message(STATUS "Windows: PATHFINDER_BUILD_${part} is switched off (they need the simulator)")
      set(PATHFINDER_BUILD_${part} OFF)
    endif()
  endforeach()
endif()

# The runtime of MinGW-w64's compiler (C++ library, GCC support, POSIX threads), which every DLL
# and program of the build shares: one copy per process, placed beside the DLLs.
set(PATHFINDER_MINGW_RUNTIME "")
if(MINGW)
  foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
                    OUTPUT_VARIABLE _path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${_path}" OR NOT EXISTS "${_path}")
      message(FATAL_ERROR "Windows: the compiler's ${dll} was not found")
    endif()
    list(APPEND PATHFINDER_MINGW_RUNTIME ${_path})
  endforeach()
endif()

# pathfinder_windows_dll(<target> <folder>): <target> becomes <OUTPUT_NAME>.dll in <folder>
# (no "lib" in front, as Windows names DLLs) with its import library in <build>/lib, and the
# compiler's runtime is put beside it.
function(pathfinder_windows_dll target folder)
  set_target_properties(${target} PROPERTIES
    PREFIX ""
    RUNTIME_OUTPUT_DIRECTORY ${folder}
    ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
  if(PATHFINDER_MINGW_RUNTIME)
    file(COPY ${PATHFINDER_MINGW_RUNTIME} DESTINATION ${folder})
  endif()
endfunction()
