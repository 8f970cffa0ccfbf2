# Where `cmake --install build --prefix P` puts things: one layout for Linux and Windows, the
# folders of GNUInstallDirs, every path relative to P so that the prefix can be moved.
#
#   include/{helmsman,device,host}/...     the public headers, under their paths in the tree
#   <annex>/                               the module, Helmsman and the host library: lib/*.so on
#                                          Linux, bin/*.dll on Windows (import libraries in lib/)
#   <annex>/Lumora/lumora_console          the console, where the installed module starts it
#   bin/pathfinder                         the host tool
#   lib/cmake/Pathfinder/                  the CMake package (cmake/PathfinderPackage.cmake)
#   lib/pkgconfig/pathfinder.pc            the pkg-config file
#   lib/python3/dist-packages/pathfinder/  the Python package (python/CMakeLists.txt)
#
# The annex folder is where the module looks for its companion console: the folder of the
# loaded Helmsman library (CDeviceBase::getAnnexPath), which a DLL shares with the programs on
# Windows and a shared object with the other libraries on Linux.
include(GNUInstallDirs)

if(WIN32)
  set(PATHFINDER_INSTALL_ANNEXDIR ${CMAKE_INSTALL_BINDIR})
else()
  set(PATHFINDER_INSTALL_ANNEXDIR ${CMAKE_INSTALL_LIBDIR})
endif()
set(PATHFINDER_INSTALL_COMPANIONDIR ${PATHFINDER_INSTALL_ANNEXDIR}/Lumora)
set(PATHFINDER_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Pathfinder)
# The Python package goes into ${PATHFINDER_INSTALL_PYTHONDIR}/pathfinder; its extension
# reaches the libraries with the RPATH $ORIGIN/../../.. (${CMAKE_INSTALL_LIBDIR}).
set(PATHFINDER_INSTALL_PYTHONDIR ${CMAKE_INSTALL_LIBDIR}/python3/dist-packages)

# Installed programs find the libraries relative to their own folder.
file(RELATIVE_PATH _pathfinder_bin_to_annex /${CMAKE_INSTALL_BINDIR} /${PATHFINDER_INSTALL_ANNEXDIR})
set(PATHFINDER_INSTALL_RPATH_BIN "$ORIGIN")
if(_pathfinder_bin_to_annex)
  set(PATHFINDER_INSTALL_RPATH_BIN "$ORIGIN/${_pathfinder_bin_to_annex}")
endif()

# pathfinder_install_library(<target> <export name>): installs a library of the host's
# interface into the annex folder as Pathfinder::<export name> of the package, its headers
# found under include/ and its libraries beside it ($ORIGIN). Built in the tree, the same
# target is reachable as Pathfinder::<export name> too.
function(pathfinder_install_library target export_name)
  # The public headers are C++17.
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${export_name} INSTALL_RPATH "$ORIGIN")
  add_library(Pathfinder::${export_name} ALIAS ${target})
  install(TARGETS ${target} EXPORT PathfinderTargets
    LIBRARY DESTINATION ${PATHFINDER_INSTALL_ANNEXDIR}
    RUNTIME DESTINATION ${PATHFINDER_INSTALL_ANNEXDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()
