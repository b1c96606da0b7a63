# Android, 32-bit ARM: an NDK's compiler and libraries (ANDROID_NDK_HOME), or else Debian's compiler over a platform kit
# (COUNTERFEED_ANDROID_KIT). A kit is a folder with `sysroot`, the platform's headers and start files, and `system`, the
# linker and the libraries of a device, with which programs also run here. Beside an NDK it is for running alone.

foreach(name ANDROID_NDK_HOME COUNTERFEED_ANDROID_KIT)
    if(NOT ${name})
        set(${name} "$ENV{${name}}")
    endif()
    # For builds that begin anew without the environment, and for the builds that try the compiler out.
    set(${name} "${${name}}" CACHE PATH "Where 32-bit Android comes from")
    list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ${name})
endforeach()

set(ANDROID_ABI armeabi-v7a)
set(ANDROID_STL c++_static)
if(NOT ANDROID_PLATFORM)
    set(ANDROID_PLATFORM android-28)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ANDROID_PLATFORM)
if(ANDROID_NDK_HOME)
    include(${ANDROID_NDK_HOME}/build/cmake/android.toolchain.cmake)
    return()
endif()
if(NOT COUNTERFEED_ANDROID_KIT)
    message(FATAL_ERROR "Set ANDROID_NDK_HOME to an NDK's folder, or COUNTERFEED_ANDROID_KIT to an unpacked platform kit.")
endif()

# What follows is the NDK's way of compiling and linking, step for step.
set(ANDROID TRUE)
string(REPLACE android- "" level ${ANDROID_PLATFORM})
execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../tools/setup --print-android-runtime OUTPUT_VARIABLE runtime
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7-a)
set(CMAKE_SYSROOT ${COUNTERFEED_ANDROID_KIT}/sysroot)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(what LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${what} ONLY)
endforeach()
foreach(tool AR RANLIB NM STRIP OBJCOPY READELF)
    string(TOLOWER llvm-${tool}-14 program)
    set(CMAKE_${tool} /usr/bin/${program})
endforeach()
set(CMAKE_C_COMPILER clang-14)
set(CMAKE_CXX_COMPILER clang++-14)
set(common "-march=armv7-a -mthumb -Qunused-arguments -funwind-tables -fstack-protector-strong")
foreach(language C CXX ASM)
    set(CMAKE_${language}_COMPILER_TARGET armv7a-linux-androideabi${level})
    set(CMAKE_${language}_FLAGS_INIT ${common})
endforeach()
string(APPEND CMAKE_CXX_FLAGS_INIT " -nostdinc++ -isystem ${runtime}/include/c++/v1")

# The libraries of a device take the place of an NDK's stubs. They need others, which are of no concern here. They also
# offer what happens to be in them of the compiler's own functions, and other devices' may not: those come first.
set(start ${CMAKE_SYSROOT}/usr/lib)
set(link "-fuse-ld=lld -nostdlib -L${COUNTERFEED_ANDROID_KIT}/system/lib -L${runtime}/lib -lunwind -lbuiltins")
string(APPEND link " -Wl,--allow-shlib-undefined -Wl,--build-id=sha1 -Wl,--fatal-warnings -Wl,--exclude-libs,libunwind.a -Wl,--exclude-libs,libbuiltins.a")
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "${link} -pie -Wl,-dynamic-linker,/system/bin/linker ${start}/crtbegin_dynamic.o ${start}/crtend_android.o")
foreach(kind SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "${link} ${start}/crtbegin_so.o ${start}/crtend_so.o")
endforeach()
set(CMAKE_C_STANDARD_LIBRARIES "-lc -lm -ldl")
set(CMAKE_CXX_STANDARD_LIBRARIES "-lc++_static ${CMAKE_C_STANDARD_LIBRARIES}")
