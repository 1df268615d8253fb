# The server program's plain pieces (platform/gridftp_server/src/server/):
# its parsers of client input, path resolution and log escaping (parse.h,
# path.h, log.h), its transfer log (xferlog.h), and what it gives an
# operator to watch: the audit log, the metrics table and its HTTP
# responder (audit.h, metrics.h, metrics_http.h).
add_executable(tarvex_gridftp_server_parse_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_parse_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_watch_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_xferlog_test.cpp
  ${PROJECT_SOURCE_DIR}/platform/gridftp_server/src/server/path.cpp)
target_link_libraries(tarvex_gridftp_server_parse_tests PRIVATE
  tarvex_server_parse tarvex_common_internal GTest::gtest_main)
# The metrics loop's tests turn it by hand: a loop that never returns
# would hang them, so they have a time-out of their own.
gtest_discover_tests(tarvex_gridftp_server_parse_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit TIMEOUT 120)
