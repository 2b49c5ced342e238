# SPDX-License-Identifier: Apache-2.0
#
# Runs PROGRAM with ARGUMENTS, and INPUT, if given, as standard input. Fails unless it exits with STATUS, and every
# regular expression of OUTPUT is found on standard output and every one of ERRORS on standard error.
set(input)
if(INPUT)
  set(input INPUT_FILE ${INPUT})
endif()
execute_process(COMMAND ${PROGRAM} ${ARGUMENTS} ${input}
                RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
set(faults)
if(NOT status STREQUAL STATUS)
  string(APPEND faults "exit status ${status}, not ${STATUS}\n")
endif()
foreach(text IN LISTS OUTPUT)
  if(NOT output MATCHES "${text}")
    string(APPEND faults "not in the output: ${text}\n")
  endif()
endforeach()
foreach(text IN LISTS ERRORS)
  if(NOT errors MATCHES "${text}")
    string(APPEND faults "not among the errors: ${text}\n")
  endif()
endforeach()
if(faults)
  message(FATAL_ERROR "${faults}---- output ----\n${output}---- errors ----\n${errors}")
endif()
