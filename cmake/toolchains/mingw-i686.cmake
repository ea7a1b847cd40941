# 32-bit Windows (x86, __stdcall exports) with Debian's mingw-w64:
#   cmake -S . -B build-win32 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-i686.cmake
set(CMAKE_SYSTEM_PROCESSOR x86)
set(TARNLOW_MINGW_TRIPLE i686-w64-mingw32)
# /usr/bin/wine runs 32-bit programs only with wine32 installed.
set(TARNLOW_WINE_NAMES wine)

# The compiler's default target is a plain i686 with x87 arithmetic, whose extended
# precision would change every model's single-precision results, and which has no MXCSR
# for flush-to-zero. SSE2 scalar arithmetic gives the same numbers as on x86-64. Hosts
# built with other compilers may call in with a stack aligned to 4 bytes only, so each
# function that needs 16 realigns its own.
set(CMAKE_C_FLAGS_INIT "-msse2 -mfpmath=sse -mstackrealign")
set(CMAKE_CXX_FLAGS_INIT "-msse2 -mfpmath=sse -mstackrealign")

include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
