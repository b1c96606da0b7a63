# How this project's own code is compiled, and how a folder adds its sources to a target.

add_library(counterfeed_options INTERFACE)
target_include_directories(counterfeed_options INTERFACE ${CMAKE_SOURCE_DIR})
target_compile_options(counterfeed_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror
    -ffunction-sections -fdata-sections
    # Counter values must come out the same on every target and at every optimisation level.
    -ffp-contract=off)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # With -O3 it takes sums of texts for copies within one text.
    target_compile_options(counterfeed_options INTERFACE -Wno-restrict)
endif()
target_compile_definitions(counterfeed_options INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64)
find_package(Threads REQUIRED)
target_link_libraries(counterfeed_options INTERFACE Threads::Threads ${CMAKE_DL_LIBS})
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC 7 changed how some types are passed on ARM and warns of it; nothing here was built with an older one.
    target_compile_options(counterfeed_options INTERFACE -Wno-psabi)
endif()

# What makes faults harder to use, for the code that ships and its files. The sanitizers have checks of their own.
add_library(counterfeed_hardening INTERFACE)
if(NOT COUNTERFEED_SANITIZE)
    target_compile_options(counterfeed_hardening INTERFACE -fstack-protector-strong
        # The C library's checks want an optimised build. Some compilers come with a level of their own.
        $<$<NOT:$<CONFIG:Debug,>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
    target_link_options(counterfeed_hardening INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
        # The linker would drop the mark for shadow stacks, since neither the C library's start files nor the tracing SDK
        # carry it. Nothing in them writes return addresses. Branch tracking wants landing places in all code, and is
        # not claimed for the whole file.
        target_compile_options(counterfeed_hardening INTERFACE -fcf-protection=full)
        target_link_options(counterfeed_hardening INTERFACE LINKER:-z,shstk)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
        target_compile_options(counterfeed_hardening INTERFACE -mbranch-protection=standard)
    endif()
endif()

if(ANDROID)
    # The linker makes files smaller where nothing is lost by it. Equal functions become one, unless the compiler has
    # noted that their addresses are used for more than calls. Relocations take the forms that the platform's linker knows
    # from level 23 and from 28 on.
    string(REPLACE android- "" level ${ANDROID_PLATFORM})
    add_compile_options(-faddrsig)
    add_link_options(LINKER:-O2,--icf=safe,--hash-style=gnu)
    if(level LESS 28)
        add_link_options(LINKER:--pack-dyn-relocs=android)
    else()
        add_link_options(LINKER:--pack-dyn-relocs=android+relr,--use-android-relr-tags)
    endif()
endif()

# The lines of a stack trace, and no more: with the types and variables the compiler takes a third longer.
add_compile_options($<$<CONFIG:RelWithDebInfo>:-g1>)

if(COUNTERFEED_SANITIZE)
    if(NOT COUNTERFEED_SANITIZE MATCHES "fuzzer")
        # What the sanitizers add takes long to optimise, and a report needs no more than lines.
        add_compile_options(-O1 -g1)
    endif()
    add_compile_options(-fsanitize=${COUNTERFEED_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${COUNTERFEED_SANITIZE})
endif()

# counterfeed_sources(<target> <source>...)
#
# Adds sources of the current folder to a target. A source location names a file by its path below the root and without
# its ending, the same in every build: "counterfeed/src/start".
function(counterfeed_sources target)
    foreach(source IN LISTS ARGN)
        cmake_path(ABSOLUTE_PATH source NORMALIZE OUTPUT_VARIABLE path)
        target_sources(${target} PRIVATE ${path})
        cmake_path(RELATIVE_PATH path BASE_DIRECTORY ${CMAKE_SOURCE_DIR} OUTPUT_VARIABLE location)
        cmake_path(REMOVE_EXTENSION location LAST_ONLY)
        set_property(SOURCE ${path} TARGET_DIRECTORY ${target}
            APPEND PROPERTY COMPILE_OPTIONS -fmacro-prefix-map=${path}=${location})
    endforeach()
endfunction()
