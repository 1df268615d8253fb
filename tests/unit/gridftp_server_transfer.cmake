# The server program's store path (read-ahead, end of data, aborts) over a
# real loopback data connection; the program's own sources, built in.
set(server_src ${TARVEX_SOURCE_ROOT}/platform/gridftp_server/src/server)
add_executable(tarvex_gridftp_server_transfer_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_transfer_test.cpp
  ${server_src}/transfer.cpp
  ${server_src}/data_channel.cpp
  ${server_src}/conn.cpp
  ${server_src}/tls.cpp
  ${server_src}/mark_registry.cpp)
target_include_directories(tarvex_gridftp_server_transfer_tests PRIVATE ${server_src})
target_link_libraries(tarvex_gridftp_server_transfer_tests PRIVATE
  tarvex_server_parse tarvex_gridftp_server tarvex_common OpenSSL::SSL OpenSSL::Crypto tarvex_test_error_check
  GTest::gtest_main
  Threads::Threads)
gtest_discover_tests(tarvex_gridftp_server_transfer_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
