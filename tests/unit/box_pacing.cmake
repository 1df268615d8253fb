# The policy's pacing store and its fallback to the pacing files, without a
# Redis server (a listener that hangs up stands for one that cannot be used).
add_executable(box_pacing_store_test ${CMAKE_CURRENT_LIST_DIR}/box_pacing_store_test.cpp)
target_link_libraries(box_pacing_store_test PRIVATE tarvex_box_internal
  tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(box_pacing_store_test PROPERTIES LABELS unit)
