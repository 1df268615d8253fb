# The command operation (make folder, delete, rename, checksums, metadata
# properties) against the Box emulator.
tarvex_gtest(tarvex_box_command_tests PREFIX box_command. LABEL integration
  SOURCES box_command_test.cpp
  LIBRARIES tarvex_box_legacy_digests tarvex_test_box_session_support)
