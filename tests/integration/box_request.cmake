# The plug-in's shared Box request loop against the Box emulator.
add_executable(box_request_test ${CMAKE_CURRENT_LIST_DIR}/box_request_test.cpp)
target_link_libraries(box_request_test PRIVATE tarvex_box_internal
  tarvex_test_box_emulator tarvex_test_driver GTest::gtest_main)
gtest_discover_tests(box_request_test PROPERTIES LABELS integration)
