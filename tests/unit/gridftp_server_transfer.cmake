# The server program's own sources, built in: its options, configuration
# file and the configuration data it hands plug-ins (options.h,
# config_file.h, config_data.h), and its store path (read-ahead, end of
# data, aborts) over a real loopback data connection (transfer.h).
set(server_src ${TARVEX_SOURCE_ROOT}/platform/gridftp_server/src/server)
add_executable(tarvex_gridftp_server_transfer_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_options_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_transfer_test.cpp
  ${server_src}/options.cpp
  ${server_src}/config_file.cpp
  ${server_src}/config_data.cpp
  ${server_src}/transfer.cpp
  ${server_src}/data_channel.cpp
  ${server_src}/conn.cpp
  ${server_src}/tls.cpp
  ${server_src}/mark_registry.cpp)
target_include_directories(tarvex_gridftp_server_transfer_tests PRIVATE ${server_src})
target_compile_definitions(tarvex_gridftp_server_transfer_tests PRIVATE
  TARVEX_VERSION="${CMAKE_PROJECT_VERSION}")
target_link_libraries(tarvex_gridftp_server_transfer_tests PRIVATE
  tarvex_server_parse tarvex_gridftp_server tarvex_common OpenSSL::SSL OpenSSL::Crypto
  tarvex_test_error_check GTest::gtest_main Threads::Threads)
gtest_discover_tests(tarvex_gridftp_server_transfer_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
