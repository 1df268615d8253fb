# The scripted operation provider: drives a storage plug-in's table without
# the server, for unit and integration tests.
add_library(tarvex_test_driver STATIC ${CMAKE_CURRENT_LIST_DIR}/driver.cpp)
target_include_directories(tarvex_test_driver PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tarvex_test_driver PUBLIC
  tarvex_gridftp_server tarvex_common Threads::Threads)
