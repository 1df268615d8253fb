# Transfers through tarvex-gridftp-server, the Box plug-in and the Box
# emulator with curl; each prints its figures and asserts nothing.
#   box_transfer  1 GiB each way, beside curl straight from the emulator and
#                 the upload's hashing alone;
#   box_wan       a distant Box (the emulator's WAN profile): transfers and a
#                 10,000-item listing with the policy's defaults and with
#                 parts in flight, download streams and pages of 1000.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_box
   AND TARGET tarvex_test_box_emulator AND TARGET tarvex_e2e_home_preload)
  foreach(bench box_transfer box_wan)
    add_executable(${bench} ${CMAKE_CURRENT_LIST_DIR}/${bench}.cpp)
    target_link_libraries(${bench} PRIVATE tarvex_box_legacy_digests
      tarvex_test_box_emulator OpenSSL::Crypto Threads::Threads)
    # Both hash with SHA1_* / MD5_*, deprecated in OpenSSL 3: box_transfer
    # times the same calls the upload makes.
    target_compile_options(${bench} PRIVATE -Wno-deprecated-declarations)
    target_compile_definitions(${bench} PRIVATE
      TARVEX_SERVER_BIN="$<TARGET_FILE:tarvex-gridftp-server>"
      TARVEX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_box>"
      TARVEX_HOME_PRELOAD="$<TARGET_FILE:tarvex_e2e_home_preload>")
    add_dependencies(${bench}
      tarvex-gridftp-server tarvex_gridftp_server_box tarvex_e2e_home_preload)
  endforeach()
endif()
