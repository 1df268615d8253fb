# Unit tests of the runtime library tarvex_common.

# A tiny extension for the loader tests, kept out of build/lib/tarvex so that it is
# found only through the search path.
add_library(tarvex_test_ext MODULE ${CMAKE_CURRENT_LIST_DIR}/fixtures/tarvex_test_ext.cpp)
target_include_directories(tarvex_test_ext PRIVATE ${TARVEX_SOURCE_ROOT}/platform/common/include)
set_target_properties(tarvex_test_ext PROPERTIES
  LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/common-fixtures)

tarvex_gtest(tarvex_common_unit_tests PREFIX common. LABEL unit
  SOURCES common_error_test.cpp common_module_test.cpp common_debug_test.cpp
          common_util_test.cpp
  LIBRARIES tarvex_common tarvex_common_internal
  INCLUDES ${TARVEX_SOURCE_ROOT}/tests/support
  DEFINITIONS TARVEX_TEST_EXT_DIR="${CMAKE_CURRENT_BINARY_DIR}/common-fixtures"
  DEPENDS tarvex_test_ext)
