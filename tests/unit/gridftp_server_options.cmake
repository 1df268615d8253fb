# The server program's options, its configuration file and the configuration
# data it hands plug-ins (platform/gridftp_server/src/server/options.h,
# config_file.h, config_data.h; conn.cpp for its clock).
set(tarvex_server_dir ${PROJECT_SOURCE_DIR}/platform/gridftp_server/src/server)
tarvex_gtest(tarvex_gridftp_server_options_tests PREFIX gridftp_server. LABEL unit
  NO_ERROR_CHECK
  SOURCES gridftp_server_options_test.cpp
          ${tarvex_server_dir}/options.cpp ${tarvex_server_dir}/config_file.cpp
          ${tarvex_server_dir}/config_data.cpp ${tarvex_server_dir}/conn.cpp
          ${tarvex_server_dir}/tls.cpp ${tarvex_server_dir}/mark_registry.cpp
  INCLUDES ${tarvex_server_dir}
  DEFINITIONS TARVEX_VERSION="${CMAKE_PROJECT_VERSION}"
  LIBRARIES tarvex_gridftp_server tarvex_common OpenSSL::SSL OpenSSL::Crypto Threads::Threads)
