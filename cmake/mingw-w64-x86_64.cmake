# Cross-compiling for Windows x64 with Debian's MinGW-w64 (the posix thread variant, for
# std::thread and std::mutex) and running what it builds under wine.
#
#   cmake -S . -B build-windows -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake -DQF_WINDOWS_DEPS=PREFIX
#
# PREFIX holds the static libraries that Debian ships no MinGW build of (qpdf, libjpeg,
# FreeType, HarfBuzz); scripts/setup-windows.sh builds them from Debian's source packages.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(QF_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${QF_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QF_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${QF_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${QF_MINGW_TRIPLE}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${QF_MINGW_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "")

# Libraries and headers come from the MinGW sysroot and the dependency prefix only, never
# from the build machine's /usr; programs (pkg-config, python3) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${QF_MINGW_TRIPLE})
if(QF_WINDOWS_DEPS)
  list(APPEND CMAKE_FIND_ROOT_PATH ${QF_WINDOWS_DEPS})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The C and C++ runtimes (libgcc, libstdc++, winpthread) are linked into every binary, so
# that a DLL or program needs nothing beside it but the system's DLLs and ours.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# Tests and the test discovery run the programs through wine (scripts/wine-run.sh: a
# prefix of the build's own, no display, no debug output).
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run.sh
                                   ${CMAKE_BINARY_DIR}/wine)
