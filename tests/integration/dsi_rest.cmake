# Integration tests of the REST client against the scripted loopback HTTP
# server (tests/support/http_script_server.py).
tarvex_gtest(tarvex_dsi_rest_integration_tests PREFIX dsi_rest. LABEL integration
  SOURCES dsi_rest_request_test.cpp dsi_rest_failure_test.cpp dsi_rest_json_limit_test.cpp
          dsi_rest_resend_test.cpp dsi_rest_stream_test.cpp
  LIBRARIES tarvex_dsi_rest OpenSSL::Crypto Threads::Threads
  DEFINITIONS TARVEX_PYTHON="${Python3_EXECUTABLE}"
    TARVEX_HTTP_SCRIPT_SERVER="${TARVEX_SOURCE_ROOT}/tests/support/http_script_server.py")
