# End-to-end tests of tarvex-gridftp-server with the posix plug-in, driven
# by real clients (curl, lftp, wget, Python's ftplib) on 127.0.0.1.
if(TARGET tarvex-gridftp-server AND TARGET tarvex_gridftp_server_posix)
  foreach(suite test_server_clients test_server_ftplib test_server_robustness
                test_server_accounts)
    if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${suite}.py)
      add_test(NAME e2e_${suite}
               COMMAND ${Python3_EXECUTABLE} -m unittest -v ${suite}
               WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
      set_tests_properties(e2e_${suite} PROPERTIES
        LABELS e2e
        TIMEOUT 900
        ENVIRONMENT "TARVEX_SERVER_BIN=$<TARGET_FILE:tarvex-gridftp-server>;TARVEX_LIB_DIR=$<TARGET_FILE_DIR:tarvex_gridftp_server_posix>;PYTHONDONTWRITEBYTECODE=1")
    endif()
  endforeach()
endif()
