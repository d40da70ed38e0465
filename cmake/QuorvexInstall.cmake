# Installs libQuorvex.so, its public headers under include/quorvex, a CMake
# package (find_package(Quorvex) gives Quorvex::Quorvex) and quorvex.pc.
include(CMakePackageConfigHelpers)

set(QUORVEX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Quorvex)

install(TARGETS Quorvex
  EXPORT QuorvexTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorvex)

install(EXPORT QuorvexTargets
  NAMESPACE Quorvex::
  DESTINATION ${QUORVEX_CMAKE_DIR})

configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/QuorvexConfig.cmake.in
  ${PROJECT_BINARY_DIR}/QuorvexConfig.cmake
  INSTALL_DESTINATION ${QUORVEX_CMAKE_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/QuorvexConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/QuorvexConfig.cmake
  ${PROJECT_BINARY_DIR}/QuorvexConfigVersion.cmake
  DESTINATION ${QUORVEX_CMAKE_DIR})

# quorvex.pc finds its prefix relative to its own directory, so the
# installed tree can be moved (make install PREFIX=... included).
set(QUORVEX_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
string(REGEX REPLACE "[^/]+" ".." QUORVEX_PKGCONFIG_TO_PREFIX "${QUORVEX_PKGCONFIG_DIR}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/quorvex.pc.in ${PROJECT_BINARY_DIR}/quorvex.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/quorvex.pc DESTINATION ${QUORVEX_PKGCONFIG_DIR})
