# Listing a 10,000-item folder through stat against the Box emulator: time
# against the pacing floor, and peak memory growth; prints, asserts nothing.
if(TARGET tarvex_test_box_emulator)
  add_executable(list_folder ${CMAKE_CURRENT_LIST_DIR}/list_folder.cpp)
  target_link_libraries(list_folder PRIVATE
    tarvex_box_internal tarvex_test_box_emulator Threads::Threads)
endif()
