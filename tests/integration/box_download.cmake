# Downloads (RETR) against the Box emulator: ranges, retries, failures and
# a streamed large file.
tarvex_gtest(tarvex_box_download_tests PREFIX box_download. LABEL integration
  SOURCES box_download_test.cpp LIBRARIES tarvex_test_box_session_support)
