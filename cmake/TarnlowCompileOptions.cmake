set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

# The models' single-precision order of operations is part of their behaviour: no fused
# multiply-add contraction and no value-changing optimisation, on any target.
add_library(tarnlow_options INTERFACE)
target_compile_options(tarnlow_options INTERFACE
  -ffp-contract=off -fno-fast-math -Wall -Wextra -Wpedantic)

set(TARNLOW_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined or thread")
if(TARNLOW_SANITIZE)
  target_compile_options(tarnlow_options INTERFACE -fsanitize=${TARNLOW_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(tarnlow_options INTERFACE -fsanitize=${TARNLOW_SANITIZE})
endif()
