# SPDX-License-Identifier: Apache-2.0
# What the library's file shows to the outside: one symbol, few wishes, no start-up code.

if(SANITIZED)  # the sanitizers add symbols and start-up code of their own
  message("Not looked at: this is a sanitizer build.")
  return()
endif()

function(run output)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN} failed: ${err}")
  endif()
  set(${output} "${out}" PARENT_SCOPE)
endfunction()

run(symbols ${NM} -D --defined-only ${LIBRARY})
string(REGEX MATCHALL "[^ \n]+\n" defined "${symbols}")
if(NOT defined STREQUAL "kdzk_global_specialized_ctx\n")
  message(FATAL_ERROR "The library must export kdzk_global_specialized_ctx alone, and has:\n${symbols}")
endif()

run(wishes ${NM} -D --undefined-only ${LIBRARY})
string(REGEX MATCHALL "[A-Za-z_][^ @\n]*[@\n]" needed "${wishes}")
foreach(symbol ${needed})
  string(REGEX REPLACE "[@\n]" "" symbol "${symbol}")
  if(NOT symbol MATCHES "^(U|w|GLIBC_.*|hostinternalerr|mem(cpy|set|move|cmp)|__assert_fail)$")
    message(FATAL_ERROR "The library needs ${symbol} from outside.")
  endif()
endforeach()

run(dynamic ${READELF} -d ${LIBRARY})
if(NOT dynamic MATCHES "SONAME.*libvexksse4219.so")
  message(FATAL_ERROR "The library has no soname.")
endif()
if(dynamic MATCHES "\\(INIT|\\(FINI|TEXTREL")
  message(FATAL_ERROR "Code runs when the library is loaded, or its text is relocated:\n${dynamic}")
endif()
string(REGEX MATCHALL "NEEDED[^\n]*" libraries "${dynamic}")
if(NOT libraries MATCHES "^NEEDED[^;]*libc\\.so\\.6\\]$")
  message(FATAL_ERROR "The library needs more than the C library: ${libraries}")
endif()
