# Unit tests of the REST client's pure pieces (no network).
tarvex_gtest(tarvex_dsi_rest_unit_tests PREFIX dsi_rest. LABEL unit
  SOURCES dsi_rest_test.cpp
  LIBRARIES tarvex_dsi_rest_internal
  INCLUDES ${TARVEX_SOURCE_ROOT}/platform/dsi_rest/src)
