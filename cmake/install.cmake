# What "cmake --install" installs, and the Debian package that "cpack" makes of it.
#
# The library has no version in its file name nor in its SONAME: on a device it is loaded by name, and names of
# libraries carry no version there. What a client can rely on shows in the version of the CMake package and of
# pkg-config: before 1.0 the same minor version is compatible.

include(CMakePackageConfigHelpers)

set(configs_folder ${CMAKE_INSTALL_DATADIR}/counterfeed/configs)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/counterfeed)

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

# The launcher, and what a workstation has use for.
set(programs launcher)
if(NOT ANDROID)
    list(APPEND programs counters report evaluate)
    install(DIRECTORY ${CMAKE_BINARY_DIR}/workstation/configs/ DESTINATION ${configs_folder}
        FILES_MATCHING PATTERN "*.txtpb" PATTERN CMakeFiles EXCLUDE)
endif()
install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(program IN LISTS programs)
    get_target_property(folder ${program} SOURCE_DIR)
    install(FILES ${folder}/counterfeed-${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME copyright)
if(TARGET virtual_gpu_preload)
    # To be preloaded, and never linked to: it stays out of the folder that linkers search.
    install(TARGETS virtual_gpu_preload LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/counterfeed)
    install(FILES virtual_gpu/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/virtual_gpu)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "counterfeed maintainers <root@localhost>" CACHE STRING "Maintainer of the package")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Hardware counters of Vexa GPUs in system traces")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "A producer that offers a GPU's hardware and derived counters to the system's tracing
service, tools that find counters, read traces and evaluate recorded samples, trace
configs that are ready to use, and a virtual GPU for machines without a real one.")
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(DPKG_SHLIBDEPS)
if(DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
