# The server program's plain pieces (platform/gridftp_server/src/server/):
# its parsers of client input, path resolution and log escaping (parse.h,
# path.h, log.h), its transfer log (xferlog.h), and what it gives an
# operator to watch: the audit log, the metrics table and its HTTP
# responder (audit.h, metrics.h, metrics_http.h).
# The metrics loop's tests turn it by hand: a loop that never returns
# would hang them, so they have a time-out of their own.
tarvex_gtest(tarvex_gridftp_server_parse_tests PREFIX gridftp_server. LABEL unit
  NO_ERROR_CHECK
  SOURCES gridftp_server_parse_test.cpp gridftp_server_watch_test.cpp
          gridftp_server_xferlog_test.cpp
          ${PROJECT_SOURCE_DIR}/platform/gridftp_server/src/server/path.cpp
  LIBRARIES tarvex_server_parse tarvex_common_internal
  PROPERTIES TIMEOUT 120)
