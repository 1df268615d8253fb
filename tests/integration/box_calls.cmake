# What the plug-in asks of Box against the emulator: the shape and pacing
# state of every request, attempt budgets, the commit's back-off and the
# checksum's fall-backs.
tarvex_gtest(tarvex_box_calls_tests PREFIX box_calls. LABEL integration
  SOURCES box_calls_test.cpp LIBRARIES tarvex_test_box_session_support)
