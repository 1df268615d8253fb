# Unit tests of the Box plug-in's namespace: item records and session caches.
add_executable(tarvex_box_namespace_unit_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_namespace_item_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_namespace_cache_test.cpp)
target_link_libraries(tarvex_box_namespace_unit_tests PRIVATE
  tarvex_box_internal GTest::gtest_main)
gtest_discover_tests(tarvex_box_namespace_unit_tests
  TEST_PREFIX "box_namespace."
  PROPERTIES LABELS unit)
