# tarvex-box-credential against the Box emulator.
if(TARGET tarvex-box-credential)
  tarvex_python_test(box_credential_test LABEL integration
    ENV TARVEX_BOX_CREDENTIAL=$<TARGET_FILE:tarvex-box-credential>
        TARVEX_BOX_EMULATOR=${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py
    PROPERTIES TIMEOUT 300)
endif()
