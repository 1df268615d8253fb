# Parts of an upload session and ranges of a download in flight at once,
# against the Box emulator's record of what was open when.
tarvex_gtest(tarvex_box_in_flight_tests PREFIX box_in_flight. LABEL integration
  SOURCES box_in_flight_test.cpp
  LIBRARIES tarvex_box_legacy_digests tarvex_test_box_session_support)
