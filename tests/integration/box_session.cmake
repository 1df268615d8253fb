# The Box request loop and Box sessions against the emulator: log-in, path
# resolution, folder listings, and what sessions of one user see of each
# other's changes (with a Redis server of the test's for two hosts).
add_executable(tarvex_box_session_tests
  ${CMAKE_CURRENT_LIST_DIR}/box_request_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_session_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_session_listing_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_session_shared_test.cpp)
target_link_libraries(tarvex_box_session_tests PRIVATE
  tarvex_test_box_session_support tarvex_test_error_check PkgConfig::HIREDIS
  GTest::gtest_main)
gtest_discover_tests(tarvex_box_session_tests
  TEST_PREFIX "box_session."
  PROPERTIES LABELS integration
  DISCOVERY_TIMEOUT 60)
