# The Box request loop and Box sessions against the emulator: log-in, path
# resolution, folder listings, and what sessions of one user see of each
# other's changes (with a Redis server of the test's for two hosts).
tarvex_gtest(tarvex_box_session_tests PREFIX box_session. LABEL integration
  SOURCES box_request_test.cpp box_session_test.cpp box_session_listing_test.cpp
          box_session_shared_test.cpp
  LIBRARIES tarvex_test_box_session_support PkgConfig::HIREDIS)
