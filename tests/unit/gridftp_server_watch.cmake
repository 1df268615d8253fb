# What the server gives an operator to watch: the audit log's lines, the
# metrics table and its HTTP responder (platform/gridftp_server/src/server/
# audit.h, metrics.h, metrics_http.h).
add_executable(tarvex_gridftp_server_watch_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_watch_test.cpp)
target_link_libraries(tarvex_gridftp_server_watch_tests PRIVATE
  tarvex_server_parse GTest::gtest_main)
# The metrics loop's tests turn it by hand: a loop that never returns
# would hang them, so they have a time-out of their own.
gtest_discover_tests(tarvex_gridftp_server_watch_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit TIMEOUT 120)
