# Runs the corvd-sim program on one scenario (none: its bundled one) and compares what it prints
# with the expected tables. Under the sanitizer build this also checks that the program exits 0
# with no leak at exit. Variables: SIM, SCENARIO (may be empty), EXPECTED, OUT.
set(args --trace none)
if(SCENARIO)
  list(APPEND args ${SCENARIO})
endif()
execute_process(COMMAND ${SIM} ${args} OUTPUT_FILE ${OUT} ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "corvd-sim exited with ${rc}:\n${err}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUT} ${EXPECTED} RESULT_VARIABLE diff)
if(NOT diff EQUAL 0)
  message(FATAL_ERROR "${OUT} differs from ${EXPECTED}")
endif()
