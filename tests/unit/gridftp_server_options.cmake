# The server program's options, its configuration file and the configuration
# data it hands plug-ins (platform/gridftp_server/src/server/options.h,
# config_file.h, config_data.h; conn.cpp for its clock).
set(tarvex_server_dir ${PROJECT_SOURCE_DIR}/platform/gridftp_server/src/server)
add_executable(tarvex_gridftp_server_options_tests
  ${CMAKE_CURRENT_LIST_DIR}/gridftp_server_options_test.cpp
  ${tarvex_server_dir}/options.cpp
  ${tarvex_server_dir}/config_file.cpp
  ${tarvex_server_dir}/config_data.cpp
  ${tarvex_server_dir}/conn.cpp
  ${tarvex_server_dir}/tls.cpp
  ${tarvex_server_dir}/mark_registry.cpp)
target_include_directories(tarvex_gridftp_server_options_tests PRIVATE ${tarvex_server_dir})
target_compile_definitions(tarvex_gridftp_server_options_tests PRIVATE
  TARVEX_VERSION="${CMAKE_PROJECT_VERSION}")
target_link_libraries(tarvex_gridftp_server_options_tests PRIVATE tarvex_gridftp_server
  tarvex_common OpenSSL::SSL OpenSSL::Crypto GTest::gtest_main Threads::Threads)
gtest_discover_tests(tarvex_gridftp_server_options_tests
  TEST_PREFIX "gridftp_server."
  PROPERTIES LABELS unit)
