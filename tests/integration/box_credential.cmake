# tarvex-box-credential against the Box emulator.
if(TARGET tarvex-box-credential)
  add_test(NAME box_credential_test
    COMMAND ${Python3_EXECUTABLE} -m unittest -v box_credential_test
    WORKING_DIRECTORY ${CMAKE_CURRENT_LIST_DIR})
  set_tests_properties(box_credential_test PROPERTIES
    LABELS integration
    ENVIRONMENT "TARVEX_BOX_CREDENTIAL=$<TARGET_FILE:tarvex-box-credential>;TARVEX_BOX_EMULATOR=${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py;PYTHONDONTWRITEBYTECODE=1;PYTHONPATH=${TARVEX_SOURCE_ROOT}/tests/support"
    TIMEOUT 300)
endif()
