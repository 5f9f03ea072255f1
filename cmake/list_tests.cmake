# After a test program is linked: what ctest reads about it, in OUTPUT. A suite is a test of ctest's, its tests share one
# process; with VELIA_TESTS=each in ctest's environment every test is one, with a process and a name of its own.
cmake_minimum_required(VERSION 3.25)

# The first line is of gtest's main.
execute_process(COMMAND ${PROGRAM} --gtest_list_tests OUTPUT_VARIABLE LISTED COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "^Running main[^\n]*\n" "" LISTED "${LISTED}")
string(REGEX REPLACE " +#[^\n]*" "" LISTED "${LISTED}")
string(REGEX MATCHALL "[^\n]+" LINES "${LISTED}")

# Tests of real processes wait more than they work, and some for long: they begin first.
set(COST 0)
if(LABEL STREQUAL "system")
  set(COST 100)
endif()

set(EACH "")
set(SUITES "")
function(append_test VARIABLE TEST FILTER SECONDS)
  string(APPEND ${VARIABLE} "add_test([==[${TEST}]==] [==[${PROGRAM}]==] [==[--gtest_filter=${FILTER}]==])\n"
         "set_tests_properties([==[${TEST}]==] PROPERTIES WORKING_DIRECTORY [==[${FOLDER}]==]\n"
         "  TIMEOUT ${SECONDS} LABELS ${LABEL} COST ${COST})\n")
  set(${VARIABLE} "${${VARIABLE}}" PARENT_SCOPE)
endfunction()

foreach(LINE IN LISTS LINES)
  if(LINE MATCHES "^  (.+)$")
    append_test(EACH "${SUITE}.${CMAKE_MATCH_1}" "${SUITE}.${CMAKE_MATCH_1}" 120)
  elseif(LINE MATCHES "^(.+)\\.$")
    set(SUITE "${CMAKE_MATCH_1}")
    append_test(SUITES "${NAME}.${SUITE}" "${SUITE}.*" 900)
  else()
    message(FATAL_ERROR "${PROGRAM} --gtest_list_tests: not understood: ${LINE}")
  endif()
endforeach()
file(WRITE ${OUTPUT} "if(\"\$ENV{VELIA_TESTS}\" STREQUAL \"each\")\n${EACH}else()\n${SUITES}endif()\n")
