# A GoogleTest listener that fails any test leaving errors in the runtime's
# error table.  An object library, so that its self-registering listener is
# linked into each program that names it (a static archive member nothing
# refers to would be left out).
add_library(tarvex_test_error_check OBJECT ${CMAKE_CURRENT_LIST_DIR}/error_table_check.cpp)
target_link_libraries(tarvex_test_error_check PUBLIC tarvex_common GTest::gtest)
