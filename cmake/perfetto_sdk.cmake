# The tracing SDK as the target perfetto_sdk, and the folder of the tracing service's programs.
#
# tools/setup keeps both in a folder of the user's cache, with one compiled library for each variant: a processor, a
# compiler's standard library and a sanitizer that must see all code. COUNTERFEED_PERFETTO_SDK names another folder with
# perfetto.h and perfetto.cc: one that "tools/setup --sdk" made, or any other, and then they are compiled here.

set(COUNTERFEED_PERFETTO_SDK "" CACHE PATH "Folder with perfetto.h and perfetto.cc to use instead of the cached SDK")
set(COUNTERFEED_TRACING_SERVICE "" CACHE PATH
    "Folder with the programs traced and perfetto that tests use instead of those beside the SDK")

if(COUNTERFEED_PERFETTO_SDK)
    set(sdk_folder ${COUNTERFEED_PERFETTO_SDK})
else()
    execute_process(COMMAND ${CMAKE_SOURCE_DIR}/tools/setup --print-sdk OUTPUT_VARIABLE sdk_folder
        OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
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
    set(variant android)
    set(library ${sdk_folder}/android-28/libperfetto.a)
    if(NOT COUNTERFEED_PERFETTO_SDK)
        execute_process(COMMAND ${CMAKE_COMMAND} -E env ANDROID_NDK_HOME=${ANDROID_NDK_HOME}
            ${CMAKE_SOURCE_DIR}/tools/setup --print-android-library OUTPUT_VARIABLE library
            OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    endif()
endif()
if(EXISTS ${library})
    add_library(perfetto_sdk STATIC IMPORTED GLOBAL)
    set_target_properties(perfetto_sdk PROPERTIES IMPORTED_LOCATION ${library})
elseif(COUNTERFEED_PERFETTO_SDK)
    add_library(perfetto_sdk STATIC ${sdk_folder}/perfetto.cc)
    target_include_directories(perfetto_sdk SYSTEM PRIVATE ${sdk_folder})
    target_compile_options(perfetto_sdk PRIVATE -w -ffunction-sections -fdata-sections)
else()
    message(FATAL_ERROR "The tracing SDK is not there for this build: run 'tools/setup ${variant}', "
        "or name a folder with perfetto.h and perfetto.cc in COUNTERFEED_PERFETTO_SDK.")
endif()
target_include_directories(perfetto_sdk SYSTEM INTERFACE ${sdk_folder})
find_package(Threads REQUIRED)
target_link_libraries(perfetto_sdk INTERFACE Threads::Threads)
if(ANDROID)
    target_link_libraries(perfetto_sdk INTERFACE log)
endif()

if(COUNTERFEED_TESTS)
    set(tracing_service ${COUNTERFEED_TRACING_SERVICE})
    if(NOT tracing_service)
        set(tracing_service ${sdk_folder}/bin)
    endif()
    foreach(program traced perfetto)
        if(NOT EXISTS ${tracing_service}/${program})
            message(FATAL_ERROR "The tests need the tracing service, and there is no ${tracing_service}/${program}: name "
                "the folder with the programs traced and perfetto in COUNTERFEED_TRACING_SERVICE, or build without "
                "tests, with COUNTERFEED_TESTS=OFF.")
        endif()
    endforeach()
    # The tests go through a link: with another service there is nothing to build anew.
    file(CREATE_LINK ${tracing_service} ${CMAKE_BINARY_DIR}/tracing_service SYMBOLIC)
    set(tracing_service ${CMAKE_BINARY_DIR}/tracing_service)
endif()
