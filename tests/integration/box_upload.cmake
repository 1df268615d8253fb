# The receive operation (STOR and its restarts) against the Box emulator:
# one-request uploads, upload sessions with parts, restarts and commits.
add_executable(tarvex_box_upload_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_session_support.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_upload_test.cpp)
target_include_directories(tarvex_box_upload_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../unit)
target_link_libraries(tarvex_box_upload_tests PRIVATE
  tarvex_box_internal tarvex_test_driver tarvex_test_box_emulator tarvex_test_error_check
  GTest::gtest_main)
gtest_discover_tests(tarvex_box_upload_tests
  TEST_PREFIX "box_upload."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
