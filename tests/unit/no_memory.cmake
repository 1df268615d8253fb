# Out of memory at the C edges of the runtime and of the Box plug-in: a
# program of its own, as it replaces the global operator new.  Without the
# error table's listener: its count at each test's start would make the
# table that one case needs unmade.
tarvex_gtest(tarvex_no_memory_tests LABEL unit NO_ERROR_CHECK
  SOURCES no_memory_test.cpp LIBRARIES tarvex_box_internal)
