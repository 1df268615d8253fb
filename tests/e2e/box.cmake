# End-to-end runs of the Box plug-in: real FTP clients (curl, lftp, wget,
# Python's ftplib, tnftp, ncftp, ftp-upload, wput, yafc, rclone) against
# tarvex-gridftp-server --dsi box, which talks to the Box emulator; both on
# 127.0.0.1.  The suites that renew a token mid-session use
# tarvex-box-credential as the server's credential helper.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_box AND
   TARGET tarvex-box-credential)
  # Gives the server a home of its own for the plug-in's per-user files
  # (see the source).
  add_library(tarvex_e2e_home_preload MODULE ${CMAKE_CURRENT_LIST_DIR}/box_home_preload.cpp)
  target_link_libraries(tarvex_e2e_home_preload PRIVATE ${CMAKE_DL_LIBS})
  set_target_properties(tarvex_e2e_home_preload PROPERTIES PREFIX "lib")
  file(GLOB suites RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/test_box_*.py)
  foreach(file ${suites})
    string(REPLACE ".py" "" suite ${file})
    add_test(NAME e2e_${suite}
             COMMAND ${Python3_EXECUTABLE} -m unittest -v ${suite}
             WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
    set_tests_properties(e2e_${suite} PROPERTIES
      LABELS e2e
      COST 100
      TIMEOUT 600
      ENVIRONMENT "TARVEX_SERVER_BIN=$<TARGET_FILE:tarvex-gridftp-server>;TARVEX_LIB_DIR=$<TARGET_FILE_DIR:tarvex_gridftp_server_box>;TARVEX_BOX_EMULATOR=${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py;TARVEX_E2E_HOME_PRELOAD=$<TARGET_FILE:tarvex_e2e_home_preload>;TARVEX_BOX_CREDENTIAL=$<TARGET_FILE:tarvex-box-credential>;PYTHONDONTWRITEBYTECODE=1;PYTHONPATH=${TARVEX_SOURCE_ROOT}/tests/support")
  endforeach()
endif()
