# SPDX-License-Identifier: Apache-2.0
# Runs PROGRAM and compares what it prints with the file PRINTS.
execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE printed RESULT_VARIABLE status)
file(READ ${PRINTS} wanted)
if(NOT status EQUAL 0 OR NOT printed STREQUAL wanted)
  message(FATAL_ERROR "${PROGRAM} (${status}) printed:\n${printed}\nand not\n${wanted}")
endif()
