# Unit tests of the server framework library; the posix plug-in is the one
# loaded by name.
add_executable(tarvex_gridftp_server_unit_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_reply_test.cpp)
target_link_libraries(tarvex_gridftp_server_unit_tests PRIVATE
  tarvex_gridftp_server tarvex_common tarvex_test_error_check
  GTest::gtest_main)
target_compile_definitions(tarvex_gridftp_server_unit_tests PRIVATE
  TARVEX_POSIX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_posix>")
add_dependencies(tarvex_gridftp_server_unit_tests tarvex_gridftp_server_posix)
gtest_discover_tests(tarvex_gridftp_server_unit_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
