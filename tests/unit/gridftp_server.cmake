# Unit tests of the server framework library; the posix plug-in is the one
# loaded by name.
tarvex_gtest(tarvex_gridftp_server_unit_tests PREFIX gridftp_server. LABEL unit
  SOURCES gridftp_server_reply_test.cpp
  LIBRARIES tarvex_gridftp_server tarvex_common
  DEFINITIONS TARVEX_POSIX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_posix>"
  DEPENDS tarvex_gridftp_server_posix)
