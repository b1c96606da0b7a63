# The tracing SDK as the imported target perfetto_sdk, and the tracing service's programs.
#
# tools/setup keeps both in the user's cache, with one compiled library for each variant: a processor, a compiler's
# standard library and a sanitizer that must see all code. COUNTERFEED_PERFETTO_SDK names a folder with another
# perfetto.h and perfetto.cc, which are then compiled here.

set(COUNTERFEED_PERFETTO_SDK "" CACHE PATH "Folder with perfetto.h and perfetto.cc to use instead of the cached SDK")

if(COUNTERFEED_PERFETTO_SDK)
    add_library(perfetto_sdk STATIC ${COUNTERFEED_PERFETTO_SDK}/perfetto.cc)
    target_include_directories(perfetto_sdk SYSTEM PUBLIC ${COUNTERFEED_PERFETTO_SDK})
    target_compile_options(perfetto_sdk PRIVATE -w -ffunction-sections -fdata-sections)
    find_package(Threads REQUIRED)
    target_link_libraries(perfetto_sdk PUBLIC Threads::Threads)
    if(ANDROID)
        target_link_libraries(perfetto_sdk PUBLIC log)
    endif()
else()
    execute_process(COMMAND ${CMAKE_SOURCE_DIR}/tools/setup --print-sdk OUTPUT_VARIABLE sdk_folder
        OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    if(ANDROID)
        set(variant android)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
        set(variant arm)
    elseif(COUNTERFEED_SANITIZE MATCHES "thread")
        set(variant tsan)
    elseif(CMAKE_CXX_FLAGS MATCHES "-stdlib=libc\\+\\+")
        set(variant libcxx)
    else()
        set(variant native)
    endif()
    set(library ${sdk_folder}/${variant}/libperfetto.a)
    if(ANDROID)
        execute_process(COMMAND ${CMAKE_COMMAND} -E env ANDROID_NDK_HOME=${ANDROID_NDK_HOME}
            ${CMAKE_SOURCE_DIR}/tools/setup --print-android-library OUTPUT_VARIABLE library
            OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    endif()
    if(NOT EXISTS ${library})
        message(FATAL_ERROR "The tracing SDK is not there for this build: run 'tools/setup ${variant}', "
            "or name a folder with perfetto.h and perfetto.cc in COUNTERFEED_PERFETTO_SDK.")
    endif()
    add_library(perfetto_sdk STATIC IMPORTED GLOBAL)
    set_target_properties(perfetto_sdk PROPERTIES IMPORTED_LOCATION ${library})
    target_include_directories(perfetto_sdk SYSTEM INTERFACE ${sdk_folder})
    find_package(Threads REQUIRED)
    target_link_libraries(perfetto_sdk INTERFACE Threads::Threads)
    if(ANDROID)
        target_link_libraries(perfetto_sdk INTERFACE log)
    endif()
    set(COUNTERFEED_TRACING_SERVICE ${sdk_folder}/bin CACHE PATH "Folder with the programs traced and perfetto" FORCE)
endif()
