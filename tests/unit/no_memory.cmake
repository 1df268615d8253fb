# Out of memory at the C edges of the Box plug-in: a program of its own, as
# it replaces the global operator new.
tarvex_gtest(tarvex_no_memory_tests LABEL unit
  SOURCES no_memory_test.cpp LIBRARIES tarvex_box_internal)
