# Cross-compiles for 64-bit Windows with Debian's MinGW-w64, posix thread model (the win32
# model has no std::mutex, which JUCE needs). Usage: -DCMAKE_TOOLCHAIN_FILE=<this file>;
# QUENDA_WINDOWS_PREFIX names the folder where the Windows builds of FFTW, libpng and
# libjpeg live (scripts/build-windows.sh makes it).
set (CMAKE_SYSTEM_NAME Windows)
set (CMAKE_SYSTEM_PROCESSOR x86_64)

set (mingw_triple x86_64-w64-mingw32)
set (CMAKE_C_COMPILER   ${mingw_triple}-gcc-posix)
set (CMAKE_CXX_COMPILER ${mingw_triple}-g++-posix)
set (CMAKE_RC_COMPILER  ${mingw_triple}-windres)
set (CMAKE_AR           /usr/bin/${mingw_triple}-gcc-ar-posix CACHE FILEPATH "")
set (CMAKE_RANLIB       /usr/bin/${mingw_triple}-gcc-ranlib-posix CACHE FILEPATH "")

# Libraries for Windows come from the MinGW sysroot and our own prefix; programs (juceaide,
# pkg-config) and CMake packages (JUCE's module scripts) from the build machine.
set (CMAKE_FIND_ROOT_PATH /usr/${mingw_triple} ${QUENDA_WINDOWS_PREFIX})
set (CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set (CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set (CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set (CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
list (APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUENDA_WINDOWS_PREFIX)

# JUCE's CMake package (the build machine's, in its multiarch folder) stays usable.
file (GLOB juce_package_dirs /usr/lib/*/cmake/JUCE-*)
if (juce_package_dirs AND NOT JUCE_DIR)
    list (GET juce_package_dirs 0 JUCE_DIR)
    set (JUCE_DIR "${JUCE_DIR}" CACHE PATH "JUCE's CMake package")
endif()

# pkg-config must see only Windows libraries.
set (ENV{PKG_CONFIG_LIBDIR} "${QUENDA_WINDOWS_PREFIX}/lib/pkgconfig:/usr/${mingw_triple}/lib/pkgconfig")
set (ENV{PKG_CONFIG_PATH} "")
set (ENV{PKG_CONFIG_SYSROOT_DIR} "")

# The DLL and the test programs must run on a Windows without MinGW's runtime DLLs: the GCC
# runtime, libstdc++ and winpthread go in statically (and zlib, whose import library would
# otherwise win over its archive).
set (CMAKE_EXE_LINKER_FLAGS_INIT    "-static -static-libgcc -static-libstdc++")
set (CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set (CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# Release DLLs go to users: without symbols they are a fraction of the size.
set (CMAKE_SHARED_LINKER_FLAGS_RELEASE_INIT "-s")
set (CMAKE_MODULE_LINKER_FLAGS_RELEASE_INIT "-s")
