# SPDX-License-Identifier: Apache-2.0
#
# Runs PROGRAM with ARGUMENTS on an emulated processor of the model CPU. Fails unless it ends with 0 and prints what the
# regular expression EXPECTED describes.
find_program(QEMU qemu-x86_64)
if(NOT QEMU)
  message("qemu-x86_64 is not installed (qemu-user)")
  return()
endif()
execute_process(COMMAND ${QEMU} -cpu ${CPU} ${PROGRAM} ${ARGUMENTS} OUTPUT_VARIABLE output ERROR_VARIABLE output
                RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT output MATCHES "${EXPECTED}")
  message(FATAL_ERROR "ended with ${status}, and was to print \"${EXPECTED}\":\n${output}")
endif()
string(REGEX MATCH "${EXPECTED}[^\n]*" found "${output}")
message("figure: on ${CPU}: ${found}")
