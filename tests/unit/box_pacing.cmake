# The policy's pacing store and its fallback to the pacing files, without a
# Redis server (a listener that hangs up stands for one that cannot be used).
tarvex_gtest(box_pacing_store_test LABEL unit
  SOURCES box_pacing_store_test.cpp LIBRARIES tarvex_box_internal)
