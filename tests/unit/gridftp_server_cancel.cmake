# Cancelling operations: the library's flag and current operation, the
# driver's cancel, and the posix plug-in's loops stopping on it.
tarvex_gtest(tarvex_gridftp_server_cancel_tests PREFIX gridftp_server. LABEL unit
  SOURCES gridftp_server_cancel_test.cpp
  LIBRARIES tarvex_test_driver tarvex_gridftp_server tarvex_common Threads::Threads
  DEFINITIONS TARVEX_POSIX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_posix>"
  DEPENDS tarvex_gridftp_server_posix)
