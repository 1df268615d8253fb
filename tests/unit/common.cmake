# Unit tests of the runtime library tarvex_common.

# A tiny extension for the loader tests, kept out of build/lib/tarvex so that it is
# found only through the search path.
add_library(tarvex_test_ext MODULE ${CMAKE_CURRENT_LIST_DIR}/fixtures/tarvex_test_ext.cpp)
target_include_directories(tarvex_test_ext PRIVATE ${TARVEX_SOURCE_ROOT}/platform/common/include)
set_target_properties(tarvex_test_ext PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/common-fixtures)

add_executable(tarvex_common_unit_tests
  ${CMAKE_CURRENT_LIST_DIR}/common_error_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/common_module_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/common_debug_test.cpp
  ${CMAKE_CURRENT_LIST_DIR}/common_util_test.cpp)
target_link_libraries(tarvex_common_unit_tests PRIVATE tarvex_common tarvex_common_internal
  tarvex_test_error_check GTest::gtest_main)
target_compile_definitions(tarvex_common_unit_tests PRIVATE
  TARVEX_TEST_EXT_DIR="${CMAKE_CURRENT_BINARY_DIR}/common-fixtures")
add_dependencies(tarvex_common_unit_tests tarvex_test_ext)
gtest_discover_tests(tarvex_common_unit_tests
  TEST_PREFIX "common."
  PROPERTIES LABELS unit)
