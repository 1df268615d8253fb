# The server program's store path (read-ahead, end of data, aborts) over a
# real loopback data connection; the program's own sources, built in.
set(server_src ${TARVEX_SOURCE_ROOT}/platform/gridftp_server/src/server)
tarvex_gtest(tarvex_gridftp_server_transfer_tests PREFIX gridftp_server. LABEL unit
  SOURCES gridftp_server_transfer_test.cpp
          ${server_src}/transfer.cpp ${server_src}/data_channel.cpp ${server_src}/conn.cpp
          ${server_src}/tls.cpp ${server_src}/mark_registry.cpp
  INCLUDES ${server_src}
  LIBRARIES tarvex_server_parse tarvex_gridftp_server tarvex_common OpenSSL::SSL
            OpenSSL::Crypto Threads::Threads)
