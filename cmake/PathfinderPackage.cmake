# The CMake package and the pkg-config file of an installed prefix (the layout is in
# cmake/PathfinderInstall.cmake). Included at the end of the top-level CMakeLists.txt, once
# every installed target exists.
#
#   find_package(Pathfinder CONFIG REQUIRED)      # Pathfinder::Pathfinder, Pathfinder::Host
#   pkg-config --cflags --libs pathfinder         # the module, Helmsman and the host library
include(CMakePackageConfigHelpers)

install(EXPORT PathfinderTargets NAMESPACE Pathfinder::
        DESTINATION ${PATHFINDER_INSTALL_CMAKEDIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/PathfinderConfig.cmake.in
  ${PROJECT_BINARY_DIR}/PathfinderConfig.cmake
  INSTALL_DESTINATION ${PATHFINDER_INSTALL_CMAKEDIR})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/PathfinderConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/PathfinderConfig.cmake
              ${PROJECT_BINARY_DIR}/PathfinderConfigVersion.cmake
        DESTINATION ${PATHFINDER_INSTALL_CMAKEDIR})

# pkg-config: one package for all three libraries (the host library where it is built); the
# prefix is found from the file's own folder.
set(PATHFINDER_PC_LIBS "-lPathfinder -lHelmsman")
set(PATHFINDER_PC_DESCRIPTION "the device module device::CPathfinder and the host interface")
if(TARGET pathfinder_host)
  set(PATHFINDER_PC_LIBS "-lpathfinder_host ${PATHFINDER_PC_LIBS}")
  string(APPEND PATHFINDER_PC_DESCRIPTION ", the host library")
endif()
file(RELATIVE_PATH PATHFINDER_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" PATHFINDER_PC_PREFIX "${PATHFINDER_PC_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/pathfinder.pc.in ${PROJECT_BINARY_DIR}/pathfinder.pc
               @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pathfinder.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Windows: the compiler's runtime beside the DLLs, as in the build (cmake/PathfinderWindows.cmake).
if(PATHFINDER_MINGW_RUNTIME)
  install(FILES ${PATHFINDER_MINGW_RUNTIME} DESTINATION ${PATHFINDER_INSTALL_ANNEXDIR})
endif()
