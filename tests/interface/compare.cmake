# SPDX-License-Identifier: Apache-2.0
#
# Lists the interface, once by a program in C and once by one in C++, and compares with the file ACCEPTED; with ACCEPT,
# writes that file.
foreach(language IN ITEMS C CPP)
  execute_process(COMMAND ${IN_${language}} ${LIBRARY} OUTPUT_VARIABLE listing_${language} RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${IN_${language}} ended with ${status}")
  endif()
  file(WRITE ${WORK}/interface_${language}.txt "${listing_${language}}")
endforeach()

function(expect_same left right sentence)
  file(READ ${left} left_text)
  file(READ ${right} right_text)
  if(NOT left_text STREQUAL right_text)
    execute_process(COMMAND diff -U2 ${left} ${right})
    message(FATAL_ERROR "${sentence}")
  endif()
endfunction()

expect_same(${WORK}/interface_C.txt ${WORK}/interface_CPP.txt "The interface isn't the same in C and in C++.")
if(ACCEPT)
  configure_file(${WORK}/interface_C.txt ${ACCEPTED} COPYONLY)
  return()
endif()
expect_same(${ACCEPTED} ${WORK}/interface_C.txt "The interface isn't that of ${ACCEPTED}. Hosts rely on it: lines that go \
or change break them. If that is meant, say so in CHANGELOG.md and accept it:\n  cmake --build ${BUILD} --target accept_interface")

foreach(what IN ITEMS "record [a-z]" "  [0-9]" "KDZK_" "kernel " "slot ")
  string(REGEX MATCHALL "\n${what}" found "${listing_C}")
  list(LENGTH found count)
  list(APPEND counts ${count})
endforeach()
list(GET counts 0 records)
list(GET counts 1 fields)
list(GET counts 2 constants)
list(GET counts 3 kernels)
list(GET counts 4 slots)
message("figure: ${records} records with ${fields} fields, ${constants} constants, ${kernels} kernels, ${slots} words of the exported record; the same in C and C++")
