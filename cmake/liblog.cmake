# The platform log as the target liblog. On the host it is the same library, from the package android-liblog.

add_library(liblog INTERFACE)
if(ANDROID)
    target_link_libraries(liblog INTERFACE log)
else()
    # The package keeps headers and library in folders of their own. The headers serve every architecture.
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
        set(liblog_folder /usr/lib/arm-linux-gnueabihf/android)
    else()
        set(liblog_folder /usr/lib/${CMAKE_SYSTEM_PROCESSOR}-linux-gnu/android)
    endif()
    if(NOT EXISTS ${liblog_folder}/liblog.so.0 OR NOT EXISTS /usr/include/android/android/log.h)
        message(FATAL_ERROR "The platform log's library or header is missing: run tools/setup.")
    endif()
    target_include_directories(liblog SYSTEM INTERFACE /usr/include/android)
    target_link_libraries(liblog INTERFACE ${liblog_folder}/liblog.so.0)
    target_link_options(liblog INTERFACE LINKER:-rpath,${liblog_folder})
endif()
