# What `cmake --install` puts under the prefix: the library with its SONAME
# links, the public header, the development agent, daxoctl when it is built,
# and two ways for applications to find the library (pkg-config and a CMake
# package exporting daxoclient::daxoclient).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(DAXO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/daxoclient)
set(DAXO_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The target names its header relative to src/, and install() would resolve
# that from here.
set_property(TARGET daxoclient PROPERTY PUBLIC_HEADER ${PROJECT_SOURCE_DIR}/src/daxo_client.h)
install(TARGETS daxoclient EXPORT daxoclientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS daxo-agent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
if(TARGET daxoctl)
  install(TARGETS daxoctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
# Under a prefix of its own (cmake --install --prefix /opt/daxo) the dynamic
# loader does not look in the prefix's lib: the programs look beside
# themselves. Under /usr (the Debian packages) the system's paths serve.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  foreach(program daxo-agent daxoctl)
    if(TARGET ${program})
      set_target_properties(${program} PROPERTIES
        INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    endif()
  endforeach()
endif()

install(EXPORT daxoclientTargets NAMESPACE daxoclient:: DESTINATION ${DAXO_CMAKE_DIR}
  COMPONENT development)
configure_package_config_file(cmake/daxoclientConfig.cmake.in
  ${PROJECT_BINARY_DIR}/daxoclientConfig.cmake INSTALL_DESTINATION ${DAXO_CMAKE_DIR})
# The C interface only grows within a major version; the SONAME says the same.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/daxoclientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/daxoclientConfig.cmake
              ${PROJECT_BINARY_DIR}/daxoclientConfigVersion.cmake
  DESTINATION ${DAXO_CMAKE_DIR} COMPONENT development)

# The .pc file locates the prefix from its own place, so the tree can be
# installed with --prefix or DESTDIR and still be found.
file(RELATIVE_PATH DAXO_PC_PREFIX_FROM_PCFILEDIR
  ${CMAKE_INSTALL_PREFIX}/${DAXO_PKGCONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" DAXO_PC_PREFIX_FROM_PCFILEDIR "${DAXO_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(cmake/daxoclient.pc.in ${PROJECT_BINARY_DIR}/daxoclient.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/daxoclient.pc DESTINATION ${DAXO_PKGCONFIG_DIR}
  COMPONENT development)
