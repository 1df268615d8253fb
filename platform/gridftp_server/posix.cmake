# The posix storage plug-in: libtarvex_gridftp_server_posix.so serves a
# local folder (root from the configuration data "config" = {"root": ...}
# or the environment variable TARVEX_POSIX_ROOT).
add_library(tarvex_gridftp_server_posix SHARED
  posix/dsi.cpp
  posix/path.cpp
  posix/error.cpp
  posix/stat.cpp
  posix/command.cpp
  posix/checksum.cpp
  posix/transfer.cpp)
target_link_libraries(tarvex_gridftp_server_posix PRIVATE
  tarvex_gridftp_server tarvex_common tarvex_common_internal PkgConfig::JANSSON OpenSSL::Crypto)
# Installed beside the libraries it links, where the server looks for it.
set_target_properties(tarvex_gridftp_server_posix PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS tarvex_gridftp_server_posix LIBRARY DESTINATION ${TARVEX_INSTALL_LIBDIR})
