# The set-up shared by the Box tests against the emulator, compiled once:
# the emulator, the plug-in pointed at it, a driver per test, and readers
# of the emulator's request log.
# (The error table's listener is linked by each test program itself: the
# objects of an OBJECT library reach only the targets that link it directly,
# and from this archive the linker dropped it, as nothing refers to it.)
add_library(tarvex_test_box_session_support STATIC
  ${CMAKE_CURRENT_LIST_DIR}/box_session_support.cpp)
target_include_directories(tarvex_test_box_session_support PUBLIC
  ${CMAKE_CURRENT_LIST_DIR} ${CMAKE_CURRENT_LIST_DIR}/../unit)
target_link_libraries(tarvex_test_box_session_support PUBLIC
  tarvex_box_internal tarvex_test_driver tarvex_test_box_emulator OpenSSL::Crypto GTest::gtest)
# The MD5 and SHA-1 of the bytes a test compares with Box's record.
target_link_libraries(tarvex_test_box_session_support PRIVATE tarvex_box_legacy_digests)
