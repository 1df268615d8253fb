# Benchmarks of the REST client against the Box emulator; they print their
# figures and assert nothing.  requests_per_second also measures requests
# made through the plug-in (its argument), so it links the plug-in too.
if(TARGET tarvex_test_box_emulator)
  foreach(bench rest_download requests_per_second)
    add_executable(${bench} ${CMAKE_CURRENT_LIST_DIR}/${bench}.cpp)
    target_link_libraries(${bench} PRIVATE
      tarvex_dsi_rest tarvex_test_box_emulator Threads::Threads)
  endforeach()
  target_link_libraries(requests_per_second PRIVATE tarvex_box_internal)
endif()
