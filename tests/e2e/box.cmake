# End-to-end runs of the Box plug-in: real FTP clients (curl, lftp, wget,
# Python's ftplib, tnftp, ftp-upload, rclone) against
# tarvex-gridftp-server --dsi box, which talks to the Box emulator; both on
# 127.0.0.1.  The suites that renew a token mid-session use
# tarvex-box-credential as the server's credential helper.
# The end-to-end suites take 5 to 40 s each, the other tests mostly under
# one: they carry a high COST so that a ctest without timings from an
# earlier run (a fresh clone's) starts them first, rather than leaving the
# longest of them to run alone at the end.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_box AND
   TARGET tarvex-box-credential)
  # Gives the server a home of its own for the plug-in's per-user files
  # (see the source).
  add_library(tarvex_e2e_home_preload MODULE ${CMAKE_CURRENT_LIST_DIR}/box_home_preload.cpp)
  target_link_libraries(tarvex_e2e_home_preload PRIVATE ${CMAKE_DL_LIBS})
  set_target_properties(tarvex_e2e_home_preload PROPERTIES PREFIX "lib")
  set(box_e2e_env
    TARVEX_SERVER_BIN=$<TARGET_FILE:tarvex-gridftp-server>
    TARVEX_LIB_DIR=$<TARGET_FILE_DIR:tarvex_gridftp_server_box>
    TARVEX_BOX_EMULATOR=${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py
    TARVEX_E2E_HOME_PRELOAD=$<TARGET_FILE:tarvex_e2e_home_preload>
    TARVEX_BOX_CREDENTIAL=$<TARGET_FILE:tarvex-box-credential>)
  file(GLOB suites RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS
       ${CMAKE_CURRENT_SOURCE_DIR}/test_box_*.py)
  foreach(file ${suites})
    string(REPLACE ".py" "" suite ${file})
    tarvex_python_test(${suite} PREFIX e2e_ LABEL e2e ENV ${box_e2e_env}
      PROPERTIES COST 100 TIMEOUT 600)
  endforeach()
endif()
