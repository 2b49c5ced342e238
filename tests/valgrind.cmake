# SPDX-License-Identifier: Apache-2.0
#
# Runs the tests FILTER of PROGRAM under valgrind, and fails if it complains of anything but SUPPRESSIONS.
find_program(VALGRIND valgrind)
if(NOT VALGRIND)
  message("valgrind is not installed")
  return()
endif()
execute_process(COMMAND ${VALGRIND} --quiet --error-exitcode=9 --suppressions=${SUPPRESSIONS}
                        ${PROGRAM} --gtest_brief=1 --gtest_filter=${FILTER}
                OUTPUT_VARIABLE output ERROR_VARIABLE output RESULT_VARIABLE status)
string(REGEX MATCH "PASSED[^\n]* ([1-9][0-9]*) tests" passed "${output}")
if(NOT status EQUAL 0 OR NOT passed)
  message(FATAL_ERROR "ended with ${status}:\n${output}")
endif()
message("figure: ${CMAKE_MATCH_1} scenes without an error")
