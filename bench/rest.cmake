# Benchmarks of the REST client against the Box emulator; they print their
# figures and assert nothing.
if(TARGET tarvex_test_box_emulator)
  foreach(bench rest_download requests_per_second)
    add_executable(${bench} ${CMAKE_CURRENT_LIST_DIR}/${bench}.cpp)
    target_link_libraries(${bench} PRIVATE
      tarvex_dsi_rest tarvex_test_box_emulator Threads::Threads)
  endforeach()
endif()
