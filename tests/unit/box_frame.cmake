# Unit tests of the Box plug-in: module and table, debug log, box error and
# answer translation, policy, credential, path variables, pacing and its
# store (without a Redis server: a listener that hangs up stands for one
# that cannot be used), the upload lock, item records, session caches, the
# session journal's file and the checksum digest pipe.
add_executable(box_frame_test
  ${CMAKE_CURRENT_LIST_DIR}/box_frame_debug_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_frame_error_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_frame_session_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_frame_retry_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_pacing_store_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_upload_lock_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_namespace_item_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_namespace_cache_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_journal_file_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/box_digest_pipe_test.cpp)
target_link_libraries(box_frame_test PRIVATE tarvex_box_legacy_digests tarvex_box_internal
  tarvex_test_driver tarvex_test_error_check GTest::gtest_main)
gtest_discover_tests(box_frame_test PROPERTIES LABELS unit)

# The plug-in loaded by name, as the server does: not linked in.
add_executable(box_frame_load_test ${CMAKE_CURRENT_LIST_DIR}/box_frame_load_test.cpp)
target_link_libraries(box_frame_load_test PRIVATE
  tarvex_gridftp_server tarvex_dsi_rest tarvex_common tarvex_test_error_check GTest::gtest_main)
target_compile_definitions(box_frame_load_test PRIVATE
  TARVEX_BOX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_box>")
add_dependencies(box_frame_load_test tarvex_gridftp_server_box)
gtest_discover_tests(box_frame_load_test PROPERTIES LABELS unit)
