# 1 GiB each way through tarvex-gridftp-server (posix plug-in, curl) against
# a local copy through user space in the same run; prints its figures and
# asserts nothing.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_posix)
  add_executable(server_transfer ${CMAKE_CURRENT_LIST_DIR}/server_transfer.cpp)
  target_compile_definitions(server_transfer PRIVATE
    TARVEX_SERVER_BIN="$<TARGET_FILE:tarvex-gridftp-server>"
    TARVEX_LIB_DIR="$<TARGET_FILE_DIR:tarvex_gridftp_server_posix>")
  add_dependencies(server_transfer tarvex-gridftp-server tarvex_gridftp_server_posix)
endif()
