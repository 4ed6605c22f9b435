# Cross build for 64-bit Windows with MinGW-w64 (Debian: g++-mingw-w64-x86-64-posix):
#
#   cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake
#
# The posix thread flavour of the compiler is preferred: its C++ library has std::thread,
# which the tests use. When Wine is installed, test programs run under it (ctest and the
# test discovery at build time), in a Wine prefix of the build directory's own.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(_korvel_triple x86_64-w64-mingw32)

find_program(CMAKE_C_COMPILER NAMES ${_korvel_triple}-gcc-posix ${_korvel_triple}-gcc REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${_korvel_triple}-g++-posix ${_korvel_triple}-g++ REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${_korvel_triple}-windres)

# Headers, libraries and packages of the target only; programs of the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${_korvel_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(KORVEL_WINE NAMES wine64 wine HINTS /usr/lib/wine /usr/lib64/wine)
  if(KORVEL_WINE)
    # No Mono or Gecko installers (they would wait for a click on a fresh prefix), no debug
    # channels on the test output.
    set(CMAKE_CROSSCOMPILING_EMULATOR
        ${CMAKE_COMMAND} -E env WINEPREFIX=${CMAKE_BINARY_DIR}/wineprefix WINEDEBUG=-all
        WINEDLLOVERRIDES=mscoree,mshtml= ${KORVEL_WINE})
  endif()
endif()
