# What `cmake --install` lays under the prefix: the shared library with its soname links,
# the C header, a pkg-config file and a CMake package (find_package(Tarnlow) gives
# Tarnlow::tarnlow), tarnlow-render, and the LV2 bundle. Every file found through the prefix
# is found relative to it, so `cmake --install --prefix` may move the whole tree anywhere.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TARNLOW_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/Tarnlow"
  CACHE STRING "Folder under the prefix for the CMake package")
set(TARNLOW_INSTALL_LV2DIR "lib/lv2" CACHE STRING "Folder under the prefix for LV2 bundles")

# --- Library and header -------------------------------------------------------------------
install(TARGETS tarnlow EXPORT TarnlowTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/tarnlow.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# --- CMake package ------------------------------------------------------------------------
install(EXPORT TarnlowTargets NAMESPACE Tarnlow:: DESTINATION ${TARNLOW_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TarnlowConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TarnlowConfig.cmake INSTALL_DESTINATION ${TARNLOW_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TarnlowConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnlowConfig.cmake ${PROJECT_BINARY_DIR}/TarnlowConfigVersion.cmake
  DESTINATION ${TARNLOW_INSTALL_CMAKEDIR})

# --- pkg-config -----------------------------------------------------------------------------
# The prefix is written relative to the .pc file's own folder.
function(tarnlow_path_from_prefix variable folder)
  if(IS_ABSOLUTE "${folder}")
    set(${variable} "${folder}" PARENT_SCOPE)
  else()
    set(${variable} "\${prefix}/${folder}" PARENT_SCOPE)
  endif()
endfunction()
set(TARNLOW_PKGCONFIG_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${TARNLOW_PKGCONFIG_DIR}")
  set(TARNLOW_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH up "/prefix/${TARNLOW_PKGCONFIG_DIR}" "/prefix")
  string(REGEX REPLACE "/$" "" up "${up}")
  set(TARNLOW_PC_PREFIX "\${pcfiledir}/${up}")
endif()
tarnlow_path_from_prefix(TARNLOW_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
tarnlow_path_from_prefix(TARNLOW_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarnlow.pc.in ${PROJECT_BINARY_DIR}/tarnlow.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarnlow.pc DESTINATION ${TARNLOW_PKGCONFIG_DIR})

# --- Programs and plug-ins, each finding the library through a path relative to itself ---
function(tarnlow_rpath_to_library target folder)
  file(RELATIVE_PATH up "/prefix/${folder}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN/${up}")
endfunction()

if(TARGET tarnlow-render)
  tarnlow_rpath_to_library(tarnlow-render "${CMAKE_INSTALL_BINDIR}")
  install(TARGETS tarnlow-render RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

if(TARGET tarnlow_lv2)
  set(bundle "${TARNLOW_INSTALL_LV2DIR}/tarnlow.lv2")
  tarnlow_rpath_to_library(tarnlow_lv2 "${bundle}")
  install(TARGETS tarnlow_lv2 LIBRARY DESTINATION ${bundle})
  install(FILES ${TARNLOW_LV2_BUNDLE}/manifest.ttl ${TARNLOW_LV2_BUNDLE}/tarnlow.ttl DESTINATION ${bundle})
endif()
