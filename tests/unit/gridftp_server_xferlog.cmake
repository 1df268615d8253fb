# The server program's transfer log: its lines and the file sessions send
# them to (platform/gridftp_server/src/server/xferlog.h).
add_executable(tarvex_gridftp_server_xferlog_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_xferlog_test.cpp)
target_link_libraries(tarvex_gridftp_server_xferlog_tests PRIVATE
  tarvex_server_parse GTest::gtest_main)
gtest_discover_tests(tarvex_gridftp_server_xferlog_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
