# Pacing across hosts through a Redis server each test starts on a free
# loopback port.  The four-host run takes 4 x 40 calls at 16/s (10 s).
pkg_check_modules(HIREDIS REQUIRED IMPORTED_TARGET hiredis)
tarvex_gtest(tarvex_box_pacing_cluster_tests PREFIX box_pacing_cluster. LABEL integration
  SOURCES box_pacing_cluster_test.cpp
  INCLUDES ${CMAKE_CURRENT_LIST_DIR}/../unit
  LIBRARIES tarvex_box_internal PkgConfig::HIREDIS)
