# The server program's parsers of client input, its path resolution and its
# log escaping: plain functions (platform/gridftp_server/src/server/parse.h,
# path.h, log.h).
add_executable(tarvex_gridftp_server_parse_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_parse_test.cpp
  ${PROJECT_SOURCE_DIR}/platform/gridftp_server/src/server/path.cpp)
target_link_libraries(tarvex_gridftp_server_parse_tests PRIVATE
  tarvex_server_parse tarvex_common_internal GTest::gtest_main)
gtest_discover_tests(tarvex_gridftp_server_parse_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
