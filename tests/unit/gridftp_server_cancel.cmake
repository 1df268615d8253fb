# Cancelling operations: the library's flag and current operation.
tarvex_gtest(tarvex_gridftp_server_cancel_tests PREFIX gridftp_server. LABEL unit
  SOURCES gridftp_server_cancel_test.cpp
  LIBRARIES tarvex_test_driver tarvex_gridftp_server tarvex_common Threads::Threads)
