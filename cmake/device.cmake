# The device's half: the shared library and the launcher.

include(perfetto_sdk)
include(liblog)

# Every folder adds its sources to one of three archives, and the shared library is all of them as a whole. The
# foundation is what knows nothing of tracing: diagnostics, operating system support, and what they stand on.
add_library(counterfeed_foundation OBJECT)
target_link_libraries(counterfeed_foundation PRIVATE counterfeed_options counterfeed_hardening liblog)
add_library(foundation STATIC $<TARGET_OBJECTS:counterfeed_foundation>)
target_link_libraries(foundation PUBLIC counterfeed_options liblog)
add_library(counterfeed_objects OBJECT)
target_link_libraries(counterfeed_objects PRIVATE counterfeed_options counterfeed_hardening perfetto_sdk liblog)
add_library(counterfeed_internal STATIC $<TARGET_OBJECTS:counterfeed_objects>)
target_link_libraries(counterfeed_internal PUBLIC catalogue foundation perfetto_sdk)

add_subdirectory(cutils)
add_subdirectory(stdlib)
add_subdirectory(osu)
add_subdirectory(cdbg)
add_subdirectory(stx)
add_subdirectory(logging)
add_subdirectory(uku)
add_subdirectory(base)
add_subdirectory(hardware)
add_subdirectory(hwc)
add_subdirectory(counterfeed/src)

add_library(counterfeed SHARED $<TARGET_OBJECTS:counterfeed_foundation> $<TARGET_OBJECTS:counterfeed_catalogue>
    $<TARGET_OBJECTS:counterfeed_objects>)
target_link_libraries(counterfeed PRIVATE counterfeed_options counterfeed_hardening perfetto_sdk liblog)
set_target_properties(counterfeed PROPERTIES LINK_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/exports.map)
target_link_options(counterfeed PRIVATE
    LINKER:--version-script=${CMAKE_SOURCE_DIR}/cmake/exports.map
    LINKER:--no-undefined-version LINKER:--gc-sections)
if(NOT COUNTERFEED_SANITIZE)
    # The sanitizers' own run-time library resolves its symbols when the program starts.
    target_link_options(counterfeed PRIVATE LINKER:--no-undefined)
endif()

add_subdirectory(launcher)
