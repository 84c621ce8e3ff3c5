# The Debian package, made with CPack from an installed tree: `cpack -G DEB` in a build folder, or
# scripts/build-package. One package holds everything the install step installs: the services,
# the units, the PAM service, the tools, manual pages and completion, and the client library with
# its development files. Its maintainer scripts (packaging/debian) enable the sockets on
# installation and remove the rights and settings on purge.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME securityagent)
set(CPACK_PACKAGE_VENDOR "Tavorin")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "privileged helper for system-maintenance applications")
set(CPACK_PACKAGE_DESCRIPTION
  "A root daemon that runs a fixed set of maintenance commands for\n\
unprivileged applications, an authorization service with PAM\n\
authentication and rights, the command-line clients, and the client\n\
library (C interface, C++ wrapper, pkg-config file, CMake package).")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Security component maintainers <security-component@tavorin.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A shlibs file and the ldconfig trigger for the client library.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libpam-runtime")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-cbor2")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
  ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
  ${PROJECT_SOURCE_DIR}/packaging/debian/postrm
  ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)

# The package's copyright and changelog, where Debian expects them.
set(KRV_PACKAGE_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz)
execute_process(COMMAND gzip -9 -n -c
  INPUT_FILE ${PROJECT_SOURCE_DIR}/packaging/debian/changelog
  OUTPUT_FILE ${KRV_PACKAGE_CHANGELOG})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright ${KRV_PACKAGE_CHANGELOG}
  DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/CompressManualPages.cmake)

include(CPack)
