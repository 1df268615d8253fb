# The Box emulator's answers and the plug-in's request table checked
# against Box's API description.
set(box_emulator_test_env
  TARVEX_BOX_EMULATOR=${TARVEX_SOURCE_ROOT}/tools/box-emulator/box_emulator.py
  TARVEX_BOX_OPENAPI=${TARVEX_SHARED}/box-openapi.json)
# Run as a program: without Box's API description it says so and exits 77,
# which ctest reports as skipped.
add_test(NAME box_emulator_contract_test
  COMMAND ${Python3_EXECUTABLE} box_emulator_contract_test.py -v
  WORKING_DIRECTORY ${CMAKE_CURRENT_LIST_DIR})
set_tests_properties(box_emulator_contract_test PROPERTIES
  LABELS integration
  ENVIRONMENT "${box_emulator_test_env};PYTHONDONTWRITEBYTECODE=1;PYTHONPATH=${TARVEX_SOURCE_ROOT}/tests/support"
  TIMEOUT 300
  SKIP_RETURN_CODE 77)

