# Unit tests of the runtime library tarvex_common.
tarvex_gtest(tarvex_common_unit_tests PREFIX common. LABEL unit
  SOURCES common_error_test.cpp common_module_test.cpp common_util_test.cpp
  LIBRARIES tarvex_common tarvex_common_internal
  INCLUDES ${TARVEX_SOURCE_ROOT}/tests/support)
