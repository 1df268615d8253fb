# The server program's parsers of client input, its path resolution and its
# log escaping: plain functions (platform/gridftp_server/src/server/parse.h,
# path.h, log.h).
tarvex_gtest(tarvex_gridftp_server_parse_tests PREFIX gridftp_server. LABEL unit
  NO_ERROR_CHECK
  SOURCES gridftp_server_parse_test.cpp
          ${PROJECT_SOURCE_DIR}/platform/gridftp_server/src/server/path.cpp
  LIBRARIES tarvex_server_parse tarvex_common_internal)
