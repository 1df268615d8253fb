# CKSM MD5 of 1 GiB through the plug-in against the Box emulator, beside
# the speed of the two digests alone; prints its figures, asserts nothing.
if(TARGET tarvex_test_box_emulator AND TARGET tarvex_test_driver)
  add_executable(checksum ${CMAKE_CURRENT_LIST_DIR}/checksum.cpp)
  target_link_libraries(checksum PRIVATE tarvex_box_legacy_digests
    tarvex_box_internal tarvex_test_driver tarvex_test_box_emulator Threads::Threads)
endif()
