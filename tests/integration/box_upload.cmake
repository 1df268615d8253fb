# The receive operation (STOR and its restarts) against the Box emulator:
# one-request uploads, upload sessions with parts, restarts and commits.
tarvex_gtest(tarvex_box_upload_tests PREFIX box_upload. LABEL integration
  SOURCES box_upload_test.cpp
  LIBRARIES tarvex_box_legacy_digests tarvex_test_box_session_support)
