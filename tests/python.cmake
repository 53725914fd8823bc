# The module on the build's library, against the tool. Six network passes
# (seconds each). Left out of sanitizer builds: an instrumented library does
# not load into a plain interpreter.
if(HSEG_PYTHON AND NOT HSEG_SANITIZE AND TARGET hseg-segment)
  add_test(NAME python_test COMMAND ${HSEG_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/python_test.py)
  set_tests_properties(python_test PROPERTIES TIMEOUT 900 ENVIRONMENT
    "PYTHONPATH=${CMAKE_BINARY_DIR}/python;HSEG_SEGMENT_TOOL=$<TARGET_FILE:hseg-segment>;HSEG_EXAMPLES_DIR=${PROJECT_SOURCE_DIR}/examples")
endif()
