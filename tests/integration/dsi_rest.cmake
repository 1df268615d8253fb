# Integration tests of the REST client against the scripted loopback HTTP
# server (tests/support/http_script_server.py).
add_executable(tarvex_dsi_rest_integration_tests
  ${CMAKE_CURRENT_LIST_DIR}/dsi_rest_request_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dsi_rest_failure_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dsi_rest_json_limit_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dsi_rest_resend_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dsi_rest_stream_test.cpp)
target_link_libraries(tarvex_dsi_rest_integration_tests PRIVATE
  tarvex_dsi_rest OpenSSL::Crypto Threads::Threads tarvex_test_error_check
  GTest::gtest_main)
target_compile_definitions(tarvex_dsi_rest_integration_tests PRIVATE
  TARVEX_PYTHON="${Python3_EXECUTABLE}"
  TARVEX_HTTP_SCRIPT_SERVER="${TARVEX_SOURCE_ROOT}/tests/support/http_script_server.py")
gtest_discover_tests(tarvex_dsi_rest_integration_tests
  TEST_PREFIX "dsi_rest."
  PROPERTIES LABELS integration)
