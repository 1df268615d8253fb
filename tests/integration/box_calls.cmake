# What the plug-in asks of Box against the emulator: the shape and pacing
# state of every request, attempt budgets, the commit's back-off and the
# checksum's fall-backs.
add_executable(tarvex_box_calls_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_calls_test.cpp)
target_link_libraries(tarvex_box_calls_tests PRIVATE
  tarvex_test_box_session_support tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_box_calls_tests
  TEST_PREFIX "box_calls."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
