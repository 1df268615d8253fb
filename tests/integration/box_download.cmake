# Downloads (RETR) against the Box emulator: ranges, retries, failures and
# a streamed large file.
add_executable(tarvex_box_download_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_download_test.cpp)
target_link_libraries(tarvex_box_download_tests PRIVATE
  tarvex_test_box_session_support tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_box_download_tests
  TEST_PREFIX "box_download."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
