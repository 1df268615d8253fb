# End-to-end tests of tarvex-gridftp-server with the posix plug-in, driven
# by real clients (curl, lftp, wget, Python's ftplib) on 127.0.0.1.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_posix)
  # A plug-in with the answers the posix one never gives (see its header).
  add_library(tarvex_gridftp_server_e2etest MODULE ${CMAKE_CURRENT_LIST_DIR}/server_test_plugin.cpp)
  target_link_libraries(tarvex_gridftp_server_e2etest PRIVATE tarvex_gridftp_server tarvex_common)
  set_target_properties(tarvex_gridftp_server_e2etest PROPERTIES PREFIX "lib")
  file(GLOB suites RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/test_server_*.py)
  foreach(file ${suites})
    string(REPLACE ".py" "" suite ${file})
    tarvex_python_test(${suite} PREFIX e2e_ LABEL e2e
      ENV TARVEX_SERVER_BIN=$<TARGET_FILE:tarvex-gridftp-server>
          TARVEX_LIB_DIR=$<TARGET_FILE_DIR:tarvex_gridftp_server_posix>
      PROPERTIES COST 100 TIMEOUT 900)
  endforeach()
endif()
