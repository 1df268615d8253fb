# The Box emulator's answers and the plug-in's request table checked
# against Box's API description.
# Run as a program: without Box's API description it says so and exits 77,
# which ctest reports as skipped.
tarvex_python_test(box_emulator_contract_test LABEL integration
  ARGS box_emulator_contract_test.py -v
  ENV TARVEX_BOX_EMULATOR=${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py
      TARVEX_BOX_OPENAPI=${TARVEX_SHARED}/box-openapi.json
  PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
