# What `cmake --install` puts in place: the program and its manual page,
# under a prefix and under DESTDIR, and an installed program that runs.
#
#   cmake -DBUILD_DIR=<build> -DSOURCE_DIR=<source> -DWORK_DIR=<scratch> -P install_check.cmake
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "install_check.cmake needs -D${var}=...")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}")

function(expect_installed root)
  foreach(item bin/diskhold share/man/man1/diskhold.1)
    if(NOT EXISTS "${root}/${item}")
      message(FATAL_ERROR "cmake --install did not put ${item} under ${root}")
    endif()
  endforeach()
  file(READ "${root}/share/man/man1/diskhold.1" installed)
  file(READ "${SOURCE_DIR}/docs/diskhold.1" original)
  if(NOT installed STREQUAL original)
    message(FATAL_ERROR "the installed manual page differs from docs/diskhold.1")
  endif()
endfunction()

function(install_and_check destdir prefix)
  execute_process(COMMAND "${CMAKE_COMMAND}" -E env "DESTDIR=${destdir}"
                          "${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${prefix}"
                  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "cmake --install (DESTDIR '${destdir}', prefix ${prefix}) failed (${status}):\n${out}")
  endif()
  expect_installed("${destdir}${prefix}")
endfunction()
# A prefix given on the command line, and a staged install as packagers do
# it: DESTDIR in front of the prefix.
install_and_check("" "${WORK_DIR}/prefix")
install_and_check("${WORK_DIR}/stage" /opt/diskhold)

# The installed program runs on its own: the disk count of the demo machine
# is its exit status.
execute_process(COMMAND "${CMAKE_COMMAND}" -E env "DISKHOLD_MACHINE=${BUILD_DIR}/demo/machine.ini"
                        "${WORK_DIR}/prefix/bin/diskhold" /diskcount /silent /result
                INPUT_FILE /dev/null RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
string(STRIP "${out}" out)
if(NOT status EQUAL 4 OR NOT out STREQUAL "4")
  message(FATAL_ERROR "the installed diskhold counted \"${out}\" disks (exit ${status}), not 4:\n${err}")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
message(STATUS "install: bin/diskhold and share/man/man1/diskhold.1 in place, the program runs")
