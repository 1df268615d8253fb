# Pacing of one Box user by four processes: on one host through its pacing
# file, and as four hosts through a Redis server the benchmark starts on a
# loopback port; prints, asserts nothing.
pkg_check_modules(HIREDIS REQUIRED IMPORTED_TARGET hiredis)
add_executable(cluster_pacing ${CMAKE_CURRENT_LIST_DIR}/cluster_pacing.cpp)
target_include_directories(cluster_pacing PRIVATE
  ${PROJECT_SOURCE_DIR}/tests/integration ${PROJECT_SOURCE_DIR}/tests/unit)
target_link_libraries(cluster_pacing PRIVATE
  tarvex_box_internal PkgConfig::HIREDIS Threads::Threads)
