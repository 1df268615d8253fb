# The server program's own sources, built in: its options, configuration
# file and the configuration data it hands plug-ins (options.h,
# config_file.h, config_data.h), and its store path (read-ahead, end of
# data, aborts) over a real loopback data connection (transfer.h).  Two
# programs: only the store path runs on several threads, and only it is
# built again under ThreadSanitizer (scripts/test).
set(server_src ${TARVEX_SOURCE_ROOT}/platform/gridftp_server/src/server)
set(server_link tarvex_server_parse tarvex_gridftp_server tarvex_common OpenSSL::SSL
    OpenSSL::Crypto Threads::Threads)
tarvex_gtest(tarvex_gridftp_server_options_tests PREFIX gridftp_server. LABEL unit
  SOURCES gridftp_server_options_test.cpp
          ${server_src}/options.cpp ${server_src}/config_file.cpp ${server_src}/config_data.cpp
          ${server_src}/conn.cpp ${server_src}/tls.cpp ${server_src}/mark_registry.cpp
  INCLUDES ${server_src}
  DEFINITIONS TARVEX_VERSION="${CMAKE_PROJECT_VERSION}"
  LIBRARIES ${server_link})
tarvex_gtest(tarvex_gridftp_server_transfer_tests PREFIX gridftp_server. LABEL unit
  SOURCES gridftp_server_transfer_test.cpp
          ${server_src}/transfer.cpp ${server_src}/data_channel.cpp ${server_src}/conn.cpp
          ${server_src}/tls.cpp ${server_src}/mark_registry.cpp
  INCLUDES ${server_src}
  LIBRARIES ${server_link})
