# The server program's parsers of client input and its log escaping: plain
# functions (platform/gridftp_server/src/server/parse.h, log.h).
add_executable(tarvex_gridftp_server_parse_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_parse_test.cpp)
target_link_libraries(tarvex_gridftp_server_parse_tests PRIVATE
  tarvex_server_parse GTest::gtest_main)
gtest_discover_tests(tarvex_gridftp_server_parse_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
