# SPDX-License-Identifier: Apache-2.0
#
# Runs PROGRAM with LIBRARY, and fails unless README holds the text of SOURCE and what the program printed, each as a
# block of its own.
execute_process(COMMAND ${PROGRAM} ${LIBRARY} OUTPUT_VARIABLE output ERROR_VARIABLE errors RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${PROGRAM} ended with ${status}: ${errors}")
endif()
file(READ ${SOURCE} source)
file(READ ${README} readme)
foreach(block IN ITEMS "c\n${source}" "\n${output}")
  string(FIND "${readme}" "```${block}```\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "${README} doesn't hold this text:\n```${block}```")
  endif()
endforeach()
