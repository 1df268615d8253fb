# Unit tests of the Box plug-in's upload lock: the per-user state file, its
# fallbacks, and processes sharing it.
tarvex_gtest(tarvex_box_upload_lock_tests LABEL unit
  SOURCES box_upload_lock_test.cpp LIBRARIES tarvex_box_internal)
