# Unit tests of the REST client's pure pieces (no network).
add_executable(tarvex_dsi_rest_unit_tests ${CMAKE_CURRENT_LIST_DIR}/dsi_rest_test.cpp)
target_include_directories(tarvex_dsi_rest_unit_tests PRIVATE
  ${TARVEX_SOURCE_ROOT}/platform/dsi_rest/src)
target_link_libraries(tarvex_dsi_rest_unit_tests PRIVATE
  tarvex_dsi_rest_internal tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(tarvex_dsi_rest_unit_tests
  TEST_PREFIX "dsi_rest."
  PROPERTIES LABELS unit)
