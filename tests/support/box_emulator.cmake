# The Box emulator as a C++ test fixture: starts tools/box-emulator on a
# free loopback port (HTTP or HTTPS with a generated test CA).
add_library(tarvex_test_box_emulator STATIC ${CMAKE_CURRENT_LIST_DIR}/box_emulator.cpp)
target_include_directories(tarvex_test_box_emulator PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(tarvex_test_box_emulator PUBLIC CURL::libcurl PkgConfig::JANSSON)
target_compile_definitions(tarvex_test_box_emulator PUBLIC
  TARVEX_BOX_EMULATOR="${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py"
  TARVEX_PYTHON3="${Python3_EXECUTABLE}")
