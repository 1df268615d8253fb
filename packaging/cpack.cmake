# The Debian package: cpack -G DEB in the build folder makes
# tarvex-gridftp-server_VERSION-1_ARCH.deb of everything "cmake --install"
# installs, under /usr.  Its dependencies are read from the libraries the
# programs and plug-ins link (dpkg-shlibdeps); the maintainer scripts make
# the service account tarvex and its folders.
set(TARVEX_PACKAGE_MAINTAINER "tarvex maintainers <root@localhost>" CACHE STRING
    "Maintainer field of the Debian package")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarvex-gridftp-server)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${TARVEX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "GridFTP and FTP server with a Box storage plug-in")
set(CPACK_PACKAGE_DESCRIPTION
    "tarvex-gridftp-server serves ordinary FTP and GridFTP clients (explicit TLS, "
    "checksums, recursive delete) from a storage plug-in: Box cloud storage, through "
    "the Box REST API on behalf of each user, or a local folder.  With the credential "
    "helper tarvex-box-credential, which keeps each user's Box OAuth 2.0 credential, "
    "a systemd unit, and the headers and pkg-config files for writing plug-ins.")
string(JOIN "" CPACK_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Binaries without their debug information: a RelWithDebInfo build's made
# the package several times bigger and slower to compress.
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
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
