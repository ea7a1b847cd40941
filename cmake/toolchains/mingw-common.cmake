# Shared by mingw-i686.cmake and mingw-x86_64.cmake, which set TARNLOW_MINGW_TRIPLE first.
# Debian's mingw-w64 packages: the "-posix" compilers use winpthreads for std::thread and
# std::mutex, which the tests need (GCC 12's win32 thread model has neither); the library
# itself starts no thread.
set(CMAKE_SYSTEM_NAME Windows)

find_program(CMAKE_C_COMPILER NAMES ${TARNLOW_MINGW_TRIPLE}-gcc-posix ${TARNLOW_MINGW_TRIPLE}-gcc REQUIRED)
find_program(CMAKE_CXX_COMPILER NAMES ${TARNLOW_MINGW_TRIPLE}-g++-posix ${TARNLOW_MINGW_TRIPLE}-g++ REQUIRED)
find_program(CMAKE_RC_COMPILER NAMES ${TARNLOW_MINGW_TRIPLE}-windres REQUIRED)

set(CMAKE_FIND_ROOT_PATH /usr/${TARNLOW_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs carry the MinGW runtime inside them, so that wine runs them without a search
# path to the compiler's DLLs. The library links its runtime statically on its own
# (src/CMakeLists.txt), whichever toolchain file is used.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

# Tests run under wine where it is found; -DTARNLOW_WINE=OFF builds without an emulator.
if(NOT DEFINED TARNLOW_WINE)
  find_program(TARNLOW_WINE NAMES ${TARNLOW_WINE_NAMES} NO_CMAKE_FIND_ROOT_PATH)
endif()
if(TARNLOW_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TARNLOW_WINE})
endif()
