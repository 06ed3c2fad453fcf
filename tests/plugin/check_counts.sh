#!/usr/bin/env bash
# End-to-end check of the plugin and the runtime on one case: the programs
# are built at -O0 and -O2 twice, with Quarl's counters and with a direct
# count of every block's entries, run the same way, and the block counts
# that 'quarl profile show --blocks' prints must be the same.
# Usage: check_counts.sh CASE; CLANG, CLANGXX, PLUGIN, RUNTIME, QUARL name
# the tools.
set -euo pipefail
case_name=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

build() { # MODE LEVEL OUTPUT SOURCE...
    local mode=$1 level=$2 output=$3 compiler=$CLANG
    shift 3
    [[ $1 == *.cpp ]] && compiler="$CLANGXX -std=c++17"
    local sources=()
    for source in "$@"; do sources+=("$here/$source"); done
    local settings=()
    [ "$mode" = naive ] && settings+=(QUARL_NAIVE_COUNTS=1)
    [ "$mode" = quarl ] && [ "$case_name" = atomic ] && settings+=(QUARL_ATOMIC_COUNTERS=1)
    local plugin=(-fpass-plugin="$PLUGIN") runtime=(-Wl,--whole-archive "$RUNTIME" -Wl,--no-whole-archive)
    [ "$mode" = plain ] && plugin=() runtime=()
    # shellcheck disable=SC2086
    env "${settings[@]}" $compiler "$level" "${plugin[@]}" "${sources[@]}" "${runtime[@]}" -lpthread -o "$output"
}

# The case's runs of PROGRAM, all writing PROFILE.
run_case() { # PROGRAM PROFILE
    export QUARL_PROFILE_FILE=$2
    case $case_name in
    control) "$1" >/dev/null; "$1" stop-in-loop >/dev/null || [ $? -eq 3 ] ;;
    concurrent) for i in 1 2 3 4; do "$1" >/dev/null & done; wait ;;
    cxx) "$1" ;;
    *) "$1" >/dev/null ;;
    esac
}

sources() {
    case $case_name in
    control | concurrent | atomic) echo control.c ;;
    jumps) echo jumps.c ;;
    exceptions) echo exceptions.cpp ;;
    cxx) echo cxx_main.cpp cxx_shapes.cpp ;;
    units) echo unit_a.c unit_b.c units_main.c ;;
    forks) echo forks.c ;;
    *) echo "unknown case $case_name" >&2; exit 2 ;;
    esac
}

fail() { echo "FAIL ($case_name $level): $*" >&2; exit 1; }

for level in -O0 -O2; do
    for mode in quarl naive; do
        # shellcheck disable=SC2046
        build $mode $level "$work/$mode" $(sources)
        run_case "$work/$mode" "$work/$mode$level.quarlprof" >"$work/$mode.out"
        "$QUARL" profile show --blocks "$work/$mode$level.quarlprof" >"$work/$mode.blocks"
    done
    diff -u "$work/naive.blocks" "$work/quarl.blocks" >&2 || fail "block counts differ from the direct count"
    if [ "$case_name" = cxx ]; then
        # shellcheck disable=SC2046
        build plain $level "$work/plain" $(sources)
        run_case "$work/plain" /dev/null >"$work/plain.out"
        diff -u "$work/plain.out" "$work/quarl.out" >&2 || fail "the instrumented program printed otherwise"
    fi
    [ -s "$work/quarl.blocks" ] || fail "empty profile"
    blocks=$(grep -c '^  block' "$work/quarl.blocks")
    case $case_name in
    concurrent) grep -qx 'function main entry 4' "$work/quarl.blocks" || fail "four runs must give main four entries" ;;
    atomic)
        QUARL_ATOMIC_COUNTERS=1 "$CLANG" $level -fpass-plugin="$PLUGIN" -S -emit-llvm "$here/control.c" -o "$work/atomic.ll"
        grep -q 'atomicrmw add' "$work/atomic.ll" || fail "QUARL_ATOMIC_COUNTERS=1 must give atomic increments"
        ! grep -q 'load i64.*__quarl_counters' "$work/atomic.ll" || fail "a plain increment is left" ;;
    forks)
        grep -qx 'function main entry 1' "$work/quarl.blocks" || fail "the child counted its parent's entry"
        [ $level = -O2 ] || grep -q ':work entry 3$' "$work/quarl.blocks" ||
            fail "work runs once before the fork, once in the child, once after" ;;
    units) [ "$(grep -c ':helper entry' "$work/quarl.blocks")" -eq 3 ] || fail "three static helpers, three keys" ;;
    cxx)
        # Code after main runs before the profile is written: counted.
        "$QUARL" profile show "$work/quarl$level.quarlprof" >"$work/table"
        [ $level != -O0 ] || grep -qE '^ +1 .*Registry::~Registry\(\)$' "$work/table" ||
            fail "the static destructor was not counted"
        [ $level != -O0 ] || grep -qE '^ +1 .*at_exit_report\(\)$' "$work/table" ||
            fail "the atexit handler was not counted" ;;
    control)
        grep -qx 'function main entry 2' "$work/quarl.blocks" || fail "two runs merged into one profile"
        # A profile named by a pipe (or /dev/null) is written into it, and
        # stays a pipe: no file is renamed over it.
        rm -f "$work/pipe" && mkfifo "$work/pipe"
        timeout 20 cat "$work/pipe" >"$work/from-pipe" &
        QUARL_PROFILE_FILE=$work/pipe "$work/quarl" >/dev/null
        wait
        [ -p "$work/pipe" ] || fail "the profile replaced the pipe it was named by"
        "$QUARL" profile show --blocks "$work/from-pipe" | grep -qx 'function main entry 1' ||
            fail "the profile written into a pipe is not this run's" 
        # Instrumented objects link without the runtime too (link probes
        # of build systems pass no libraries) and run uncounted, value
        # sites included.
        for program in control values; do
            "$CLANG" $level -fpass-plugin="$PLUGIN" "$here/$program.c" -o "$work/unlinked" ||
                fail "$program.c instrumented does not link without the runtime"
            "$CLANG" $level "$here/$program.c" -o "$work/plain"
            rm -f "$work/unlinked.quarlprof"
            QUARL_PROFILE_FILE=$work/unlinked.quarlprof "$work/unlinked" >"$work/unlinked.out" ||
                fail "$program.c without the runtime failed"
            "$work/plain" >"$work/plain.out"
            # values.c prints a sum its threads race on.
            [ $program = values ] || cmp -s "$work/plain.out" "$work/unlinked.out" ||
                fail "$program.c without the runtime printed otherwise"
            [ ! -e "$work/unlinked.quarlprof" ] || fail "a program without the runtime wrote a profile"
        done
        # Above -O0, scaled() is inlined before counting.
        [ $level != -O0 ] || "$QUARL" profile show "$work/quarl$level.quarlprof" | grep -qE ' 1  .*:mix$' ||
            fail "mix() calls only functions that come back: one counter"
        # Plain updates stay volatile, out of the optimiser's way (compile time).
        "$CLANG" $level -fpass-plugin="$PLUGIN" -S -emit-llvm "$here/control.c" -o "$work/plain.ll"
        grep -q 'load volatile i64.*__quarl_counters' "$work/plain.ll" || fail "no volatile counter update"
        ! grep -qE 'load i64.*__quarl_counters|store i64 .*__quarl_counters' "$work/plain.ll" ||
            fail "a counter update is not volatile" ;;
    esac
    echo "$case_name $level: $blocks block counts agree"
done
