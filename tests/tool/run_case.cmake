# Runs the quarl tool once and compares what it did with the golden texts.
#
# -DTOOL=path -DCASE=name -DCASE_DIR=dir -DOUT_DIR=dir -DSTATUS=n
# -DARGS=a|b|c       arguments; @OUT@ stands for the case's directory in OUT_DIR
# -DINPUTS=x|y       sections of inputs.txt to write into @OUT@ first
# -DSTDIN=file       standard input (relative to CASE_DIR, or @OUT@/...)
# -DOUT=name         golden standard output golden/NAME.out (default: CASE);
#                    no such file means no output expected
# -DERR=text         expected standard error, a line end added; default golden/CASE.err
# -DPRODUCES=file    a file the tool writes in @OUT@, compared with golden/FILE
# -DPATH_ENV=dirs    PATH for the tool
# With QUARL_UPDATE_GOLDEN=1 in the environment, the golden files are
# rewritten from what the tool did instead.
cmake_minimum_required(VERSION 3.25)

set(golden ${CASE_DIR}/golden)
# Each case has a directory of its own, so that cases can run in parallel.
set(OUT_DIR ${OUT_DIR}/${CASE})
file(MAKE_DIRECTORY ${OUT_DIR})
if(NOT DEFINED OUT OR OUT STREQUAL "")
    set(OUT ${CASE})
endif()

file(READ ${CASE_DIR}/inputs.txt sections)
string(REPLACE "|" ";" INPUTS "${INPUTS}")
foreach(input IN LISTS INPUTS)
    string(FIND "${sections}" "=== ${input}\n" start)
    if(start LESS 0)
        message(FATAL_ERROR "no section ${input} in inputs.txt")
    endif()
    string(LENGTH "=== ${input}\n" header)
    math(EXPR start "${start} + ${header}")
    string(SUBSTRING "${sections}" ${start} -1 body)
    string(FIND "${body}" "\n===" end)
    if(end GREATER_EQUAL 0)
        math(EXPR end "${end} + 1")
        string(SUBSTRING "${body}" 0 ${end} body)
    endif()
    file(WRITE ${OUT_DIR}/${input} "${body}")
endforeach()

string(REPLACE "@OUT@" "${OUT_DIR}" ARGS "${ARGS}")
string(REPLACE "|" ";" ARGS "${ARGS}")
set(command ${TOOL} ${ARGS})
if(DEFINED PATH_ENV)
    set(command ${CMAKE_COMMAND} -E env PATH=${PATH_ENV} ${command})
endif()
set(stdin_option)
if(DEFINED STDIN)
    string(REPLACE "@OUT@" "${OUT_DIR}" STDIN "${STDIN}")
    set(stdin_option INPUT_FILE ${STDIN})
endif()
if(DEFINED PRODUCES)
    file(REMOVE ${OUT_DIR}/${PRODUCES})
endif()
execute_process(COMMAND ${command} WORKING_DIRECTORY ${CASE_DIR} ${stdin_option}
                OUTPUT_VARIABLE actual_out ERROR_VARIABLE actual_err RESULT_VARIABLE status)
# Files in the case's directory are named in messages without it.
string(REPLACE "${OUT_DIR}/" "" actual_out "${actual_out}")
string(REPLACE "${OUT_DIR}/" "" actual_err "${actual_err}")

if("$ENV{QUARL_UPDATE_GOLDEN}" STREQUAL "1")
    if(NOT actual_out STREQUAL "" AND OUT STREQUAL CASE)
        file(WRITE ${golden}/${OUT}.out "${actual_out}")
    endif()
    if(NOT actual_err STREQUAL "" AND NOT DEFINED ERR)
        file(WRITE ${golden}/${CASE}.err "${actual_err}")
    endif()
    if(DEFINED PRODUCES)
        file(COPY_FILE ${OUT_DIR}/${PRODUCES} ${golden}/${PRODUCES})
    endif()
endif()

set(failures "")
# Appends a report to failures when actual differs from expected.
function(compare what expected actual)
    if(NOT actual STREQUAL expected)
        set(failures "${failures}${what} differs:\n---- expected\n${expected}---- actual\n${actual}----\n"
            PARENT_SCOPE)
    endif()
endfunction()
if(NOT status STREQUAL STATUS)
    string(APPEND failures "exit status ${status}, expected ${STATUS}\n")
endif()
set(expected_out "")
if(EXISTS ${golden}/${OUT}.out)
    file(READ ${golden}/${OUT}.out expected_out)
endif()
compare("standard output (golden/${OUT}.out)" "${expected_out}" "${actual_out}")
if(DEFINED ERR)
    set(expected_err "${ERR}\n")
elseif(EXISTS ${golden}/${CASE}.err)
    file(READ ${golden}/${CASE}.err expected_err)
else()
    set(expected_err "")
endif()
compare("standard error" "${expected_err}" "${actual_err}")
if(DEFINED PRODUCES)
    file(READ ${golden}/${PRODUCES} expected_file HEX)
    set(actual_file "(missing)")
    if(EXISTS ${OUT_DIR}/${PRODUCES})
        file(READ ${OUT_DIR}/${PRODUCES} actual_file HEX)
    endif()
    if(NOT actual_file STREQUAL expected_file)
        string(APPEND failures "${PRODUCES} differs from golden/${PRODUCES} (bytes in hex):\n"
               "expected ${expected_file}\nactual   ${actual_file}\n")
    endif()
endif()
if(NOT failures STREQUAL "")
    message(FATAL_ERROR "tool case ${CASE}:\n${failures}")
endif()
