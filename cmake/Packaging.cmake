# One Debian package with everything cmake --install puts in place: the
# library, its header and package files, daxo-agent and daxoctl.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libdaxoclient)
set(CPACK_PACKAGE_VENDOR "libdaxoclient developers")
set(CPACK_PACKAGE_CONTACT "libdaxoclient developers <libdaxoclient@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "library through which device applications report measurements to the local IoT agent")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# Named by hand rather than by dpkg-shlibdeps, which needs dpkg-dev on the
# build machine; these are the Debian 12 packages of what the binaries link.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, libjson-c5, libmosquitto1, libssl3")
# A shlibs file, and an ldconfig trigger so the SONAME link is made on install.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

include(CPack)
