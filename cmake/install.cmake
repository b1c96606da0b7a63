# What "cmake --install" installs, and the Debian package that "cpack" makes of it.

set(configs_folder ${CMAKE_INSTALL_DATADIR}/counterfeed/configs)
set(programs)
if(COUNTERFEED_DEVICE)
    include(install_device)
endif()

# The launcher, and what a workstation has use for.
if(NOT ANDROID)
    list(APPEND programs counters evaluate record report)
    install(DIRECTORY ${CMAKE_BINARY_DIR}/workstation/configs/ DESTINATION ${configs_folder}
        FILES_MATCHING PATTERN "*.txtpb" PATTERN CMakeFiles EXCLUDE)
endif()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/man)
install(TARGETS ${programs} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(program IN LISTS programs)
    get_target_property(folder ${program} SOURCE_DIR)
    set(page ${folder}/counterfeed-${program}.1)
    if(TARGET ${program}_texts)
        set(page ${CMAKE_BINARY_DIR}/man/counterfeed-${program}.1)
        install(FILES ${CMAKE_BINARY_DIR}/completions/bash/counterfeed-${program}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
        install(FILES ${CMAKE_BINARY_DIR}/completions/zsh/_counterfeed-${program}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
    endif()
    set(manual ${CMAKE_BINARY_DIR}/man/counterfeed-${program}.1.gz)
    # Without a time of its own, so that equal pages are equal files.
    add_custom_command(OUTPUT ${manual} COMMAND gzip -9nc ${page} > ${manual} DEPENDS ${page} VERBATIM)
    list(APPEND manuals ${manual})
endforeach()
set(changelog ${CMAKE_BINARY_DIR}/man/changelog.gz)
set(changes ${CMAKE_SOURCE_DIR}/cmake/package/changelog)
add_custom_command(OUTPUT ${changelog} COMMAND gzip -9nc ${changes} > ${changelog} DEPENDS ${changes} VERBATIM)
add_custom_target(manuals ALL DEPENDS ${manuals} ${changelog})
foreach(program IN LISTS programs)
    if(TARGET ${program}_texts)
        add_dependencies(manuals ${program}_texts)
    endif()
endforeach()
install(FILES ${manuals} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${changelog} DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES cmake/package/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "counterfeed maintainers <maintainers@counterfeed.invalid>" CACHE STRING "Maintainer of the package")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Hardware counters of Vexa GPUs in system traces")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "A producer that offers a GPU's hardware and derived counters to the system's
tracing service, tools that find counters, read traces and evaluate recorded
samples, trace configs that are ready to use, and a virtual GPU for machines
without a real one.")
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(DPKG_SHLIBDEPS)
if(DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
