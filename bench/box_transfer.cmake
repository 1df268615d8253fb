# 1 GiB each way through tarvex-gridftp-server, the Box plug-in and the Box
# emulator with curl, beside curl straight from the emulator and the
# upload's hashing alone; prints its figures and asserts nothing.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_box
   AND TARGET tarvex_test_box_emulator AND TARGET tarvex_e2e_home_preload)
  add_executable(box_transfer ${CMAKE_CURRENT_LIST_DIR}/box_transfer.cpp)
  target_link_libraries(box_transfer PRIVATE tarvex_box_legacy_digests
    tarvex_test_box_emulator OpenSSL::Crypto Threads::Threads)
  # The upload hashes with SHA1_* / MD5_*, deprecated in OpenSSL 3: the
  # benchmark times the same calls.
  target_compile_options(box_transfer PRIVATE -Wno-deprecated-declarations)
  target_compile_definitions(box_transfer PRIVATE
    TARVEX_SERVER_BIN="$<TARGET_FILE:tarvex-gridftp-server>"
    TARVEX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_box>"
    TARVEX_HOME_PRELOAD="$<TARGET_FILE:tarvex_e2e_home_preload>")
  add_dependencies(box_transfer
    tarvex-gridftp-server tarvex_gridftp_server_box tarvex_e2e_home_preload)
endif()
