# SPDX-License-Identifier: Apache-2.0
# Runs BROKEN, the sample engine with one mistake at a time, and expects it to name the rule and no other; and SAMPLE, in
# which all rules hold.
cmake_policy(VERSION 3.22)
execute_process(COMMAND ${SAMPLE} ${LIBRARY} OUTPUT_VARIABLE printed ERROR_VARIABLE errors RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT printed MATCHES "ok, 0 broken, 0 skipped, 0 not used\n$")
  message(FATAL_ERROR "the sample engine (${status}):\n${printed}${errors}")
endif()
string(REGEX MATCHALL "\n  ok +[a-z-]+" rules "${printed}")
list(TRANSFORM rules REPLACE "\n  ok +" "")

file(READ ${PAGE} page)
foreach(rule IN LISTS rules)
  if(NOT page MATCHES "\n\\| `${rule}` \\|")
    message(SEND_ERROR "${PAGE} doesn't tell of the rule ${rule}")
  endif()
endforeach()

execute_process(COMMAND ${CMAKE_COMMAND} -E env KDZK_BREAK=little ${BROKEN} ${LIBRARY}
                OUTPUT_VARIABLE printed RESULT_VARIABLE status)
if(NOT status EQUAL 0 OR NOT printed MATCHES "not used  dict-runs " OR NOT printed MATCHES "ok        dict\n" OR
   NOT printed MATCHES "hostinternalerr +it ends the process\n" OR NOT printed MATCHES "ok, 0 broken, 0 skipped")
  message(SEND_ERROR "the engine with few forms (${status}):\n${printed}")
endif()

execute_process(COMMAND ${CMAKE_COMMAND} -E env KDZK_BREAK=list ${BROKEN} ${LIBRARY}
                OUTPUT_VARIABLE mistakes ERROR_QUIET RESULT_VARIABLE status)
string(REGEX MATCHALL "[^\n]+" mistakes "${mistakes}")
list(LENGTH mistakes count)
if(count LESS 30)
  message(FATAL_ERROR "${count} mistakes: ${mistakes}")
endif()
foreach(mistake IN LISTS mistakes)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env KDZK_BREAK=${mistake} ${BROKEN} ${LIBRARY}
                  OUTPUT_VARIABLE printed ERROR_VARIABLE errors RESULT_VARIABLE status)
  if(NOT status EQUAL 1 OR NOT mistake IN_LIST rules OR NOT printed MATCHES "\n  BROKEN +${mistake} +[^\n]+: [^\n]+\n"
     OR NOT printed MATCHES "ok, 1 broken,")
    message(SEND_ERROR "the engine with ${mistake} broken (${status}):\n${printed}${errors}")
  endif()
endforeach()
