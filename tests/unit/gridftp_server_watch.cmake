# What the server gives an operator to watch: the audit log's lines, the
# metrics table and its HTTP responder (platform/gridftp_server/src/server/
# audit.h, metrics.h, metrics_http.h).
# The metrics loop's tests turn it by hand: a loop that never returns
# would hang them, so they have a time-out of their own.
tarvex_gtest(tarvex_gridftp_server_watch_tests PREFIX gridftp_server. LABEL unit
  NO_ERROR_CHECK
  SOURCES gridftp_server_watch_test.cpp LIBRARIES tarvex_server_parse
  PROPERTIES TIMEOUT 120)
