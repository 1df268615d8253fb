# Parts of an upload session and ranges of a download in flight at once,
# against the Box emulator's record of what was open when.
add_executable(tarvex_box_in_flight_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_in_flight_test.cpp)
target_link_libraries(tarvex_box_in_flight_tests PRIVATE tarvex_box_legacy_digests
  tarvex_test_box_session_support tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_box_in_flight_tests
  TEST_PREFIX "box_in_flight."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
