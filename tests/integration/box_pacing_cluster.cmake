# Pacing across hosts through a Redis server each test starts on a free
# loopback port.  The four-host runs take 4 x 200 calls at 16/s (50 s
# through the store, 12.5 s without); the sanitized builds make 40 calls a
# host (10 s and 2.5 s), as the spacing they check does not depend on the
# number.
pkg_check_modules(HIREDIS REQUIRED IMPORTED_TARGET hiredis)
add_executable(tarvex_box_pacing_cluster_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_pacing_cluster_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_pacing_store_link_test.cpp)
target_include_directories(tarvex_box_pacing_cluster_tests PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/../unit)
target_link_libraries(tarvex_box_pacing_cluster_tests PRIVATE
  tarvex_box_internal tarvex_test_error_check PkgConfig::HIREDIS GTest::gtest_main)
set(box_pacing_cluster_environment "")
if(NOT tarvex_sanitize MATCHES "^(off|no|false|0|)$")
  set(box_pacing_cluster_environment "TARVEX_PACING_TEST_CALLS=40")
endif()
gtest_discover_tests(tarvex_box_pacing_cluster_tests
  TEST_PREFIX "box_pacing_cluster."
  PROPERTIES LABELS integration ENVIRONMENT "${box_pacing_cluster_environment}"
  DISCOVERY_TIMEOUT 60)
