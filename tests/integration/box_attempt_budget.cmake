# Attempt budgets of Box requests against the emulator: every request is
# one paced attempt of its call, and a call makes at most its budget.
add_executable(tarvex_box_attempt_budget_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_attempt_budget_test.cpp)
target_link_libraries(tarvex_box_attempt_budget_tests PRIVATE
  tarvex_test_box_session_support tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_box_attempt_budget_tests
  TEST_PREFIX "box_attempt_budget."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
