# What of the device's half is installed: the library, what its clients build with, the launcher, the virtual GPU.
#
# The library has no version in its file name nor in its SONAME: on a device it is loaded by name, and names of
# libraries carry no version there. What a client can rely on shows in the version of the CMake package and of
# pkg-config: before 1.0 the same minor version is compatible.

include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/counterfeed)
list(APPEND programs launcher)

# For clients of the exported operations.
install(TARGETS counterfeed EXPORT counterfeed-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES counterfeed/src/start.h osu/vexa_osu.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/counterfeed)
install(EXPORT counterfeed-targets NAMESPACE counterfeed:: DESTINATION ${package_folder})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/counterfeed-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES cmake/counterfeed-config.cmake ${CMAKE_BINARY_DIR}/package/counterfeed-config-version.cmake
    DESTINATION ${package_folder})
# The file finds the other folders from its own, so that the whole can be moved.
file(RELATIVE_PATH prefix_of_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/counterfeed.pc.in package/counterfeed.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/counterfeed.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET virtual_gpu_preload)
    # To be preloaded, and never linked to: it stays out of the folder that linkers search.
    install(TARGETS virtual_gpu_preload LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/counterfeed)
    install(FILES virtual_gpu/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/virtual_gpu)
endif()

# The package has the loader look for the library anew. Why the library has a run path stands in the overrides.
list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/cmake/package/triggers)
install(FILES cmake/package/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME counterfeed)
