# Unit tests of the server framework library.

# A one-table plug-in for the load-by-name tests, kept out of build/lib/tarvex so
# that only the search path finds it.
add_library(tarvex_gridftp_server_gfsfixture MODULE
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_plugin_fixture.cpp)
target_link_libraries(tarvex_gridftp_server_gfsfixture PRIVATE tarvex_gridftp_server)
set_target_properties(tarvex_gridftp_server_gfsfixture PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/gridftp-fixtures)

add_executable(tarvex_gridftp_server_unit_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_reply_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_error_test.cpp)
target_link_libraries(tarvex_gridftp_server_unit_tests PRIVATE
  tarvex_gridftp_server tarvex_common tarvex_test_error_check
  GTest::gtest_main)
target_compile_definitions(tarvex_gridftp_server_unit_tests PRIVATE
  TARVEX_GFS_FIXTURE_DIR="${CMAKE_CURRENT_BINARY_DIR}/gridftp-fixtures")
add_dependencies(tarvex_gridftp_server_unit_tests tarvex_gridftp_server_gfsfixture)
gtest_discover_tests(tarvex_gridftp_server_unit_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
