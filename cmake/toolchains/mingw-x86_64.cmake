# 64-bit Windows with Debian's mingw-w64:
#   cmake -S . -B build-win64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-x86_64.cmake
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(TARNLOW_MINGW_TRIPLE x86_64-w64-mingw32)
set(TARNLOW_WINE_NAMES wine64 wine)

include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
