# Unit tests of the Box plug-in: module and table, the translation of Box's
# error answers, policy, credential, path variables, pacing and its
# store (without a Redis server: a listener that hangs up stands for one
# that cannot be used), the upload lock, item records, listing markers, the
# session journal's file and the checksum digest pipe.
tarvex_gtest(box_frame_test LABEL unit
  SOURCES box_frame_error_test.cpp box_frame_session_test.cpp
          box_frame_retry_test.cpp box_pacing_store_test.cpp box_upload_lock_test.cpp
          box_namespace_item_test.cpp box_namespace_cache_test.cpp
          box_journal_file_test.cpp box_digest_pipe_test.cpp
  LIBRARIES tarvex_box_legacy_digests tarvex_box_internal tarvex_test_driver)

# The plug-in loaded by name, as the server does: not linked in.
tarvex_gtest(box_frame_load_test LABEL unit
  SOURCES box_frame_load_test.cpp
  LIBRARIES tarvex_gridftp_server tarvex_dsi_rest tarvex_common
  DEFINITIONS TARVEX_BOX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_box>"
  DEPENDS tarvex_gridftp_server_box)
