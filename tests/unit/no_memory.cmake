# Out of memory at the C edges of the runtime and of the Box plug-in: a
# program of its own, as it replaces the global operator new.  Without the
# error table's listener: its count at each test's start would make the
# table that one case needs unmade.
add_executable(tarvex_no_memory_tests ${CMAKE_CURRENT_LIST_DIR}/no_memory_test.cpp)
target_link_libraries(tarvex_no_memory_tests PRIVATE tarvex_box_internal GTest::gtest_main)
gtest_discover_tests(tarvex_no_memory_tests PROPERTIES LABELS unit)
