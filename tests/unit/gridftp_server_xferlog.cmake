# The server program's transfer log: its lines and the file sessions send
# them to (platform/gridftp_server/src/server/xferlog.h).
tarvex_gtest(tarvex_gridftp_server_xferlog_tests PREFIX gridftp_server. LABEL unit
  NO_ERROR_CHECK
  SOURCES gridftp_server_xferlog_test.cpp LIBRARIES tarvex_server_parse)
