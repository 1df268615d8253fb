# A distant Box: transfers and a 10,000-item listing through
# tarvex-gridftp-server, the Box plug-in and the Box emulator's WAN profile
# with curl, with the policy's defaults and with parts in flight, download
# streams and pages of 1000; prints its figures and asserts nothing.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_box
   AND TARGET tarvex_test_box_emulator AND TARGET tarvex_e2e_home_preload)
  add_executable(box_wan ${CMAKE_CURRENT_LIST_DIR}/box_wan.cpp)
  target_link_libraries(box_wan PRIVATE tarvex_box_legacy_digests
    tarvex_test_box_emulator OpenSSL::Crypto Threads::Threads)
  target_compile_options(box_wan PRIVATE -Wno-deprecated-declarations)
  target_compile_definitions(box_wan PRIVATE
    TARVEX_SERVER_BIN="$<TARGET_FILE:tarvex-gridftp-server>"
    TARVEX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_box>"
    TARVEX_HOME_PRELOAD="$<TARGET_FILE:tarvex_e2e_home_preload>")
  add_dependencies(box_wan
    tarvex-gridftp-server tarvex_gridftp_server_box tarvex_e2e_home_preload)
endif()
