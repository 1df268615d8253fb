# The command operation (make folder, delete, rename, checksums, metadata
# properties) against the Box emulator.
add_executable(tarvex_box_command_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_command_test.cpp)
target_link_libraries(tarvex_box_command_tests PRIVATE tarvex_box_legacy_digests
  tarvex_test_box_session_support tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_box_command_tests
  TEST_PREFIX "box_command."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
