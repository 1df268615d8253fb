# The server program's own sources, built in: its options, configuration
# file and the configuration data it hands plug-ins (options.h,
# config_file.h, config_data.h), and its store path (read-ahead, end of
# data, aborts) over a real loopback data connection (transfer.h).
set(server_src ${TARVEX_SOURCE_ROOT}/platform/gridftp_server/src/server)
tarvex_gtest(tarvex_gridftp_server_transfer_tests PREFIX gridftp_server. LABEL unit
  SOURCES gridftp_server_options_test.cpp gridftp_server_transfer_test.cpp
          ${server_src}/options.cpp ${server_src}/config_file.cpp ${server_src}/config_data.cpp
          ${server_src}/transfer.cpp ${server_src}/data_channel.cpp ${server_src}/conn.cpp
          ${server_src}/tls.cpp ${server_src}/mark_registry.cpp
  INCLUDES ${server_src}
  DEFINITIONS TARVEX_VERSION="${CMAKE_PROJECT_VERSION}"
  LIBRARIES tarvex_server_parse tarvex_gridftp_server tarvex_common OpenSSL::SSL
            OpenSSL::Crypto Threads::Threads)
