# Compiler flags shared by every target of the project.

# The native half of the Windows host check (tests/windows), which scripts/windows-check.sh
# compares with the Windows build; always built for Windows.
option(PATHFINDER_WINDOWS_HOST_CHECK "Build tests/windows natively as well" OFF)

add_library(pathfinder_warnings INTERFACE)
target_compile_options(pathfinder_warnings INTERFACE -Wall -Wextra -Wpedantic)
if(PATHFINDER_WERROR)
  target_compile_options(pathfinder_warnings INTERFACE -Werror)
endif()

if(PATHFINDER_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 12 reports std::function members inside <regex> as maybe-uninitialized once the
    # address sanitizer instruments them; the warning is wrong there and would fail -Werror.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
elseif(PATHFINDER_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT PATHFINDER_SANITIZE STREQUAL "")
  message(FATAL_ERROR "PATHFINDER_SANITIZE must be address, thread or empty")
endif()

# gcc's line and branch counters for scripts/coverage.sh.
if(PATHFINDER_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()

# pathfinder_add_test(<name> SOURCES <files...> LIBS <targets...> [LABELS <labels...>] [TIMEOUT <s>]
#                     [RUN_SERIAL])
# One GoogleTest executable registered with CTest; each TEST becomes a CTest case. RUN_SERIAL:
# its cases run with no other test beside them.
function(pathfinder_add_test name)
  cmake_parse_arguments(ARG "RUN_SERIAL" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main pathfinder_warnings)
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  include(GoogleTest)
  set(_serial FALSE)
  if(ARG_RUN_SERIAL)
    set(_serial TRUE)
  endif()
  gtest_discover_tests(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} RUN_SERIAL ${_serial}
    DISCOVERY_TIMEOUT 60)
  # Labels are set by a script of their own that CTest reads after the discovered cases: passed
  # through the discovery's properties, a list of labels is split and only the first one stays.
  if(ARG_LABELS)
    set(_labels_file "${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake")
    file(WRITE "${_labels_file}"
      "if(${name}_TESTS)\n  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${_labels_file}")
  endif()
endfunction()

# pathfinder_add_bench(<name> SOURCES <files...> LIBS <targets...>)
function(pathfinder_add_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} benchmark::benchmark pathfinder_warnings)
endfunction()
