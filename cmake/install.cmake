# What "cmake --install" installs, and the Debian package that "cpack" makes of it.

set(configs_folder ${CMAKE_INSTALL_DATADIR}/counterfeed/configs)
set(programs)
if(COUNTERFEED_DEVICE)
    include(install_device)
endif()

# The launcher, and what a workstation has use for.
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
