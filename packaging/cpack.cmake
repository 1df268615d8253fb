# The Debian package: cpack -G DEB in the build folder makes
# tarvex-gridftp-server_VERSION-1_ARCH.deb of everything "cmake --install"
# installs, under /usr.  Its dependencies are read from the libraries the
# programs and plug-ins link (dpkg-shlibdeps); the maintainer scripts make
# the service account tarvex and its folders.  lintian finds nothing in it
# but what the README lists (tests/install/test_install_package.py).
#
# Whoever distributes the package names themselves as its maintainer
# (-DTARVEX_PACKAGE_MAINTAINER="Name <address>"); the default is a
# placeholder in a domain reserved for examples.
set(TARVEX_PACKAGE_MAINTAINER "tarvex maintainers <maintainers@tarvex.example.org>"
    CACHE STRING "Maintainer field of the Debian package: \"Name <address>\"")
# A build folder configured before keeps the earlier default, whose
# root@localhost lintian refuses as a maintainer's address.
if(TARVEX_PACKAGE_MAINTAINER STREQUAL "tarvex maintainers <root@localhost>")
  set_property(CACHE TARVEX_PACKAGE_MAINTAINER PROPERTY VALUE
               "tarvex maintainers <maintainers@tarvex.example.org>")
endif()
set(TARVEX_PACKAGE_RELEASE 1)

# What Debian wants of every package beside its files: the copyright and
# a changelog in its documentation folder.
set(tarvex_debian_docdir ${CMAKE_INSTALL_DATADIR}/doc/tarvex-gridftp-server)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright DESTINATION ${tarvex_debian_docdir})
install(CODE "
  set(tarvex_version \"${PROJECT_VERSION}\")
  set(tarvex_release \"${TARVEX_PACKAGE_RELEASE}\")
  set(tarvex_maintainer \"${TARVEX_PACKAGE_MAINTAINER}\")
  include(\"${CMAKE_CURRENT_LIST_DIR}/install_configured.cmake\")
  tarvex_install_debian_changelog(\"${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in\"
                                  \"${tarvex_debian_docdir}\")
")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarvex-gridftp-server)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${TARVEX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "GridFTP and FTP server with a Box storage plug-in")
# One element a line of the extended description (at most 80 columns).
set(CPACK_PACKAGE_DESCRIPTION
    "tarvex-gridftp-server serves ordinary FTP and GridFTP clients (explicit TLS,"
    "checksums, recursive delete) from a storage plug-in: Box cloud storage,"
    "through the Box REST API on behalf of each user, or a local folder."
    "With the credential helper tarvex-box-credential, which keeps each user's"
    "Box OAuth 2.0 credential, a systemd unit, and the headers and pkg-config"
    "files for writing plug-ins.")
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Binaries without their debug information: a RelWithDebInfo build's made
# the package several times bigger and slower to compress.
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TARVEX_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The postinst makes the account with adduser; the unit reloads with kill.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, procps")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/postinst
    ${CMAKE_CURRENT_LIST_DIR}/debian/prerm
    ${CMAKE_CURRENT_LIST_DIR}/debian/postrm
    ${CMAKE_CURRENT_LIST_DIR}/debian/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# "make package_source" would otherwise take the build folders along.
set(CPACK_SOURCE_IGNORE_FILES "/\\\\.git/" "/build[^/]*/" "__pycache__")

include(CPack)
