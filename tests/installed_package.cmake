# SPDX-License-Identifier: Apache-2.0
# Installs the library into an empty directory and builds two C11 hosts against that directory alone, once through the
# CMake package, once through pkg-config: one that links the library, and FIRST_CALL, which opens it by the host kit. All
# call a kernel of the installed library. By the CMake package also ENGINE, for verify-host.

function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)

run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/host -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_C_COMPILER=${C_COMPILER}
    -DFIRST_CALL=${FIRST_CALL} -DENGINE=${ENGINE})
run(${CMAKE_COMMAND} --build ${WORK}/host)
run(${WORK}/host/host)
if(NOT output STREQUAL "4 of 8 rows are below 4\n")
  message(FATAL_ERROR "The host built by the CMake package printed: ${output}")
endif()

file(GLOB_RECURSE installed_library ${WORK}/prefix/libvexksse4219.so)
set(first_call_prints "kdzk_lt_dict_3bit returned 0: 6 of 12 rows: 1 3 4 6 9 11\n")
run(${WORK}/host/first_call ${installed_library})
if(NOT output STREQUAL first_call_prints)
  message(FATAL_ERROR "The first call built by the CMake package printed: ${output}")
endif()

run(${WORK}/host/verify_host ${installed_library})
if(NOT output MATCHES "ok, 0 broken, 0 skipped, 0 not used\n$")
  message(FATAL_ERROR "The sample engine built by the CMake package printed: ${output}")
endif()

find_program(PKG_CONFIG pkg-config)
if(NOT PKG_CONFIG)
  message("pkg-config is not installed: the pkg-config file was not tried.")
  return()
endif()
file(GLOB_RECURSE pc ${WORK}/prefix/kdzk.pc)
get_filename_component(pc_directory ${pc} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_directory})
run(${PKG_CONFIG} --cflags --libs kdzk)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${PKG_CONFIG} --variable=libdir kdzk)
string(STRIP "${output}" libdir)
run(${C_COMPILER} -std=c11 -Wall -Wextra -Werror ${SOURCE}/host.c ${flags} -Wl,-rpath,${libdir} -o ${WORK}/host_by_pkg_config)
run(${WORK}/host_by_pkg_config)
if(NOT output STREQUAL "4 of 8 rows are below 4\n")
  message(FATAL_ERROR "The host built by pkg-config printed: ${output}")
endif()

run(${PKG_CONFIG} --cflags --libs kdzk-host)
separate_arguments(flags UNIX_COMMAND "${output}")
run(${C_COMPILER} -std=c11 -Wall -Wextra -Werror ${FIRST_CALL} -Wl,-u,hostinternalerr
    -Wl,--export-dynamic-symbol=hostinternalerr ${flags} -o ${WORK}/first_call_by_pkg_config)
run(${WORK}/first_call_by_pkg_config ${installed_library})
if(NOT output STREQUAL first_call_prints)
  message(FATAL_ERROR "The first call built by pkg-config printed: ${output}")
endif()
