# Unit tests of the Box plug-in's upload lock: the per-user state file, its
# fallbacks, and processes sharing it.
add_executable(tarvex_box_upload_lock_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_upload_lock_test.cpp)
target_link_libraries(tarvex_box_upload_lock_tests PRIVATE tarvex_box_internal
  tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_box_upload_lock_tests PROPERTIES LABELS unit)
