# SPDX-License-Identifier: Apache-2.0
# Installs the library into an empty directory and builds a C11 host against that directory alone: once through the CMake
# package, once through pkg-config. Both hosts open the installed library and call a kernel.

function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)

run(${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/host -DCMAKE_PREFIX_PATH=${WORK}/prefix -DCMAKE_C_COMPILER=${C_COMPILER})
run(${CMAKE_COMMAND} --build ${WORK}/host)
run(${WORK}/host/host)
if(NOT output STREQUAL "4 of 8 rows are below 4\n")
  message(FATAL_ERROR "The host built by the CMake package printed: ${output}")
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
