# The Box plug-in with tarvex-box-credential as the server's credential
# helper, against the Box emulator's token endpoint.
if(TARGET tarvex_e2e_home_preload AND TARGET tarvex-box-credential)
  add_test(NAME e2e_test_box_credential
           COMMAND ${Python3_EXECUTABLE} -m unittest -v test_box_credential
           WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
  set_tests_properties(e2e_test_box_credential PROPERTIES
    LABELS e2e
    COST 100
    TIMEOUT 600
    ENVIRONMENT "TARVEX_SERVER_BIN=$<TARGET_FILE:tarvex-gridftp-server>;TARVEX_LIB_DIR=$<TARGET_FILE_DIR:tarvex_gridftp_server_box>;TARVEX_BOX_EMULATOR=${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py;TARVEX_E2E_HOME_PRELOAD=$<TARGET_FILE:tarvex_e2e_home_preload>;TARVEX_BOX_CREDENTIAL=$<TARGET_FILE:tarvex-box-credential>;PYTHONDONTWRITEBYTECODE=1;PYTHONPATH=${TARVEX_SOURCE_ROOT}/tests/support")
endif()
