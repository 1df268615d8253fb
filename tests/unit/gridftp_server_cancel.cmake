# Cancelling operations: the library's flag and current operation, the
# driver's cancel, and the posix plug-in's loops stopping on it.
add_executable(tarvex_gridftp_server_cancel_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_cancel_test.cpp)
target_link_libraries(tarvex_gridftp_server_cancel_tests PRIVATE
  tarvex_test_driver tarvex_gridftp_server tarvex_common tarvex_test_error_check
  GTest::gtest_main Threads::Threads)
target_compile_definitions(tarvex_gridftp_server_cancel_tests PRIVATE
  TARVEX_POSIX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_posix>")
add_dependencies(tarvex_gridftp_server_cancel_tests tarvex_gridftp_server_posix)
gtest_discover_tests(tarvex_gridftp_server_cancel_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
