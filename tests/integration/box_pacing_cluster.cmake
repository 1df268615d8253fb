# Pacing across hosts through a Redis server each test starts on a free
# loopback port.  The four-host run takes 4 x 40 calls at 16/s (10 s).
pkg_check_modules(HIREDIS REQUIRED IMPORTED_TARGET hiredis)
add_executable(tarvex_box_pacing_cluster_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_pacing_cluster_test.cpp)
target_include_directories(tarvex_box_pacing_cluster_tests PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/../unit)
target_link_libraries(tarvex_box_pacing_cluster_tests PRIVATE
  tarvex_box_internal tarvex_test_error_check PkgConfig::HIREDIS GTest::gtest_main)
gtest_discover_tests(tarvex_box_pacing_cluster_tests
  TEST_PREFIX "box_pacing_cluster."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
