# The receive operation (STOR and its restarts) against the Box emulator:
# one-request uploads, upload sessions with parts, restarts and commits.
add_executable(tarvex_box_upload_tests ${CMAKE_CURRENT_LIST_DIR}/box_upload_test.cpp)
target_link_libraries(tarvex_box_upload_tests PRIVATE tarvex_box_legacy_digests
  tarvex_test_box_session_support tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_box_upload_tests
  TEST_PREFIX "box_upload."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
