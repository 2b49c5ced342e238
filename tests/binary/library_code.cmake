# SPDX-License-Identifier: Apache-2.0
# Hands the disassembly of LIBRARY to PROGRAM, which looks at WHAT of it.
execute_process(COMMAND ${OBJDUMP} -d -M intel --no-show-raw-insn ${LIBRARY} COMMAND ${PROGRAM} ${WHAT} ${OBJECTS}
                RESULTS_VARIABLE statuses)
if(NOT statuses STREQUAL "0;0")
  message(FATAL_ERROR "objdump and the look at its output ended with ${statuses}")
endif()
