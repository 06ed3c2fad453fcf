# Tool tests: every case runs the quarl tool once on files and compares its
# standard output, standard error, exit status and any file it writes with
# the expected ones (golden files in golden/, small inputs in inputs.txt).
set(QUARL_TOOL_CASE_DIR ${CMAKE_CURRENT_LIST_DIR})
set(QUARL_TOOL_OUT_DIR ${CMAKE_CURRENT_BINARY_DIR}/tool_cases)
file(MAKE_DIRECTORY ${QUARL_TOOL_OUT_DIR})

function(quarl_tool_case name status)
    cmake_parse_arguments(CASE "" "STDIN;OUT;ERR;PRODUCES;PATH_ENV" "ARGS;INPUTS" ${ARGN})
    list(JOIN CASE_ARGS "|" args)
    list(JOIN CASE_INPUTS "|" inputs)
    set(options)
    foreach(option STDIN OUT ERR PRODUCES PATH_ENV)
        if(DEFINED CASE_${option})
            list(APPEND options "-D${option}=${CASE_${option}}")
        endif()
    endforeach()
    add_test(NAME tool.${name}
             COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:quarl_tool> -DCASE=${name}
                     -DCASE_DIR=${QUARL_TOOL_CASE_DIR} -DOUT_DIR=${QUARL_TOOL_OUT_DIR}
                     -DSTATUS=${status} "-DARGS=${args}" "-DINPUTS=${inputs}" ${options}
                     -P ${QUARL_TOOL_CASE_DIR}/run_case.cmake)
endfunction()

# Usage: help texts, version, and bad command lines (status 2).
quarl_tool_case(help 0 ARGS --help)
quarl_tool_case(version 0 ARGS --version)
quarl_tool_case(demo_help 0 ARGS demo --help)
quarl_tool_case(instrument_help 0 ARGS instrument --help)
quarl_tool_case(dump_help 0 ARGS dump -h)
quarl_tool_case(blocks_help 0 ARGS blocks --help)
quarl_tool_case(no_command 2)
quarl_tool_case(unknown_command 2 ARGS frobnicate
    ERR "quarl: unknown command 'frobnicate'\nTry 'quarl --help'.")
quarl_tool_case(unknown_option 2 ARGS dump --hex example.words
    ERR "quarl dump: unknown option '--hex'\nTry 'quarl dump --help'.")
quarl_tool_case(missing_argument 2 ARGS blocks example.words
    ERR "quarl blocks: expected 2 argument(s), got 1\nTry 'quarl blocks --help'.")
quarl_tool_case(missing_value 2 ARGS instrument example.cfg -o
    ERR "quarl instrument: option -o needs a value\nTry 'quarl instrument --help'.")
quarl_tool_case(binary_without_output 2 ARGS instrument --binary example.cfg
    ERR "quarl instrument: --binary needs -o FILE\nTry 'quarl instrument --help'.")
quarl_tool_case(dot_and_svg 2 ARGS dump --dot --svg x.svg example.words
    ERR "quarl dump: --dot and --svg exclude each other\nTry 'quarl dump --help'.")
quarl_tool_case(both_stdin 2 ARGS blocks - -
    ERR "quarl blocks: only one of WORDS and COUNTERS can be standard input\nTry 'quarl blocks --help'.")
quarl_tool_case(bad_block_count 2 ARGS blocks --blocks lots example.words x
    ERR "quarl blocks: --blocks needs a number from 0 to 16777216\nTry 'quarl blocks --help'.")

# The demo, and its picture of the placed routine.
quarl_tool_case(demo 0 ARGS demo)
quarl_tool_case(demo_dot 0 ARGS demo --dot @OUT@/demo.dot OUT demo PRODUCES demo.dot)

# instrument: placement report, stored words in hex text and binary.
quarl_tool_case(instrument_example 0 ARGS instrument -o @OUT@/example.words example.cfg
    PRODUCES example.words)
quarl_tool_case(instrument_binary 0 ARGS instrument --binary -o @OUT@/example.bin example.cfg
    OUT instrument_example PRODUCES example.bin)
quarl_tool_case(instrument_to_stdout 0 ARGS instrument -o - example.cfg)
quarl_tool_case(instrument_stdin 0 ARGS instrument - STDIN loop.cfg)
quarl_tool_case(instrument_chosen 0 ARGS instrument loop.cfg)
quarl_tool_case(instrument_marked 0 ARGS instrument marked.cfg)

# instrument: bad routines (status 1), each named by file and line.
foreach(bad IN ITEMS
        "unknown_statement.cfg:2: unknown statement 'blok' (expected 'block' or 'edge')"
        "bad_index.cfg:1: bad block index 'zero' (expected a number from 0 to 1048575)"
        "huge_index.cfg:1: bad block index '1048576' (expected a number from 0 to 1048575)"
        "undefined_block.cfg:2: block 1 is not defined above"
        "duplicate_block.cfg:3: block 0 is already defined (line 1)"
        "unknown_flag.cfg:3: unknown edge flag 'hot'"
        "duplicate_counter.cfg:4: counter 0 is already on the edge of line 3"
        "bad_cost.cfg:2: bad cost in 'cost=12x' (expected a 64-bit integer)"
        "gap.cfg: block 1 is missing (blocks are numbered from 0 without gaps)"
        "empty.cfg: the routine has no blocks"
        "unreachable_block.cfg:3: a reachable edge cannot touch an unreachable block (mark the edge unreachable)"
        "unreachable_counter.cfg:3: an unreachable edge cannot carry a counter"
        "too_few_counters.cfg: counter placement failed, blocks left unresolved: B0001 B0002 (mark more counters, or none to let quarl choose)"
        "forced.cfg: counter placement failed, edges that need a counter: B0002.ZExit (mark more counters, or none to let quarl choose)")
    string(REGEX MATCH "^[a-z_]+" input "${bad}")
    quarl_tool_case(instrument_${input} 1 ARGS instrument @OUT@/${input}.cfg
        INPUTS ${input}.cfg ERR "quarl: ${bad}")
endforeach()
quarl_tool_case(instrument_missing_file 1 ARGS instrument missing.cfg
    ERR "quarl: missing.cfg: cannot open: No such file or directory")

set(undecodable "damaged stored words: they do not decode (too short, truncated, unknown format or impossible block indices)")

# dump: hex text, raw binary and standard input give the same dump.
quarl_tool_case(dump_example 0 ARGS dump golden/example.words)
quarl_tool_case(dump_binary 0 ARGS dump golden/example.bin OUT dump_example)
quarl_tool_case(dump_stdin 0 ARGS dump - STDIN golden/example.bin OUT dump_example)
quarl_tool_case(dump_dot 0 ARGS dump --dot golden/example.words)
quarl_tool_case(dump_svg_without_graphviz 1 ARGS dump --svg @OUT@/example.svg golden/example.words
    PATH_ENV /nonexistent
    ERR "quarl: cannot render example.svg: Graphviz's 'dot' is not installed (install Graphviz, e.g. apt-get install graphviz, or use --dot and render elsewhere)")
find_program(QUARL_DOT_PROGRAM dot)
if(QUARL_DOT_PROGRAM)
    quarl_tool_case(dump_svg 0 ARGS dump --svg @OUT@/example.svg golden/example.words)
endif()
quarl_tool_case(dump_truncated 1 ARGS dump @OUT@/truncated.words INPUTS truncated.words
    ERR "quarl: truncated.words: ${undecodable}")
quarl_tool_case(dump_unknown_format 1 ARGS dump @OUT@/unknown_format.words
    INPUTS unknown_format.words
    ERR "quarl: unknown_format.words: ${undecodable}")
quarl_tool_case(dump_bad_word 1 ARGS dump @OUT@/bad_word.words INPUTS bad_word.words
    ERR "quarl: bad_word.words:2: 'xyz' is not a 32-bit hexadecimal word")
quarl_tool_case(dump_odd_binary 1 ARGS dump golden/odd.bin
    ERR "quarl: golden/odd.bin: 5 bytes of binary data is not a whole number of 32-bit words")

# blocks: the profile-use entry point; damaged data gives status 1.
quarl_tool_case(blocks_example 0 ARGS blocks golden/example.words @OUT@/example.counters
    INPUTS example.counters)
quarl_tool_case(blocks_counters_stdin 0 ARGS blocks golden/example.bin -
    INPUTS example.counters STDIN @OUT@/example.counters OUT blocks_example)
quarl_tool_case(blocks_more_blocks 0
    ARGS blocks --blocks 5 golden/example.words @OUT@/example.counters INPUTS example.counters)
quarl_tool_case(blocks_too_few_counters 1 ARGS blocks golden/example.words @OUT@/one.counters
    INPUTS one.counters
    ERR "quarl: one.counters: the stored graph reads counter 1, but there are only 1 counter values")
quarl_tool_case(blocks_bad_counter 1 ARGS blocks golden/example.words @OUT@/bad.counters
    INPUTS bad.counters
    ERR "quarl: bad.counters:1: '-3' is not a counter value (an unsigned 64-bit number)")
quarl_tool_case(blocks_impossible_index 1
    ARGS blocks @OUT@/impossible_index.words @OUT@/one.counters
    INPUTS impossible_index.words one.counters
    ERR "quarl: impossible_index.words: ${undecodable}")
quarl_tool_case(blocks_unresolvable 1 ARGS blocks @OUT@/unresolvable.words @OUT@/one.counters
    INPUTS unresolvable.words one.counters
    ERR "quarl: unresolvable.words: damaged stored words: their counters do not determine every block's count")

# profile: what instrumented programs write (a sample from a small C
# program); damaged and foreign files give status 1 and the reason.
quarl_tool_case(profile_help 0 ARGS profile --help)
quarl_tool_case(profile_show 0 ARGS profile show golden/sample.quarlprof)
quarl_tool_case(profile_blocks 0 ARGS profile show --blocks golden/sample.quarlprof)
quarl_tool_case(profile_merge 0 ARGS profile merge -o @OUT@/twice.quarlprof golden/sample.quarlprof
    golden/sample.quarlprof PRODUCES twice.quarlprof)
quarl_tool_case(profile_truncated 1 ARGS profile show golden/truncated.quarlprof
    ERR "quarl: golden/truncated.quarlprof: truncated in the words or counters of function 0")
quarl_tool_case(profile_foreign 1 ARGS profile show golden/example.bin
    ERR "quarl: golden/example.bin: not a Quarl profile (no QUARLPRF header)")
quarl_tool_case(profile_missing 1 ARGS profile show golden/none.quarlprof
    ERR "quarl: golden/none.quarlprof: cannot open: No such file or directory")
quarl_tool_case(profile_bad_action 2 ARGS profile list x
    ERR "quarl profile: unknown action 'list' (expected 'show' or 'merge')\nTry 'quarl profile --help'.")
quarl_tool_case(profile_merge_usage 2 ARGS profile merge golden/sample.quarlprof
    ERR "quarl profile: merge needs -o OUT and at least one IN\nTry 'quarl profile --help'.")
# C++ names are demangled, C names are left as they are.
quarl_tool_case(profile_names 0 ARGS profile show golden/names.quarlprof)
# The edge counts that profile use turns into branch weights; --function
# picks a function by its symbol (static ones carry "FILE:" in their key).
quarl_tool_case(profile_edges 0 ARGS profile show --edges --function classify golden/sample.quarlprof)
# Callees (by key when the profile has a record of theirs) and lengths of
# a training run of a small C program, most frequent first.
quarl_tool_case(profile_values 0 ARGS profile show --values golden/values.quarlprof)
quarl_tool_case(profile_function_blocks 0 ARGS profile show --blocks --function main golden/sample.quarlprof)
quarl_tool_case(profile_function_missing 1 ARGS profile show --function absent golden/sample.quarlprof
    ERR "quarl: golden/sample.quarlprof: no function 'absent'")
quarl_tool_case(profile_edges_and_blocks 2 ARGS profile show --edges --blocks golden/sample.quarlprof
    ERR "quarl profile: --blocks, --edges and --values exclude each other\nTry 'quarl profile --help'.")
# A record claiming more nodes than its words can name is refused before
# anything is sized by it.
quarl_tool_case(profile_huge_nodes 1 ARGS profile show golden/huge_nodes.quarlprof
    ERR "quarl: golden/huge_nodes.quarlprof: function 0 has more graph nodes than its words can hold")
