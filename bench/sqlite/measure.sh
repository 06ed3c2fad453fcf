#!/usr/bin/env bash
# Quarl on a real program: the SQLite amalgamation that the npm package
# better-sqlite3@13.2.0 ships, fetched here with 'npm pack' (none of it is
# kept in the repository), and the workload in workload.c. All builds -O2.
#
#   plain    no instrumentation
#   quarl    the Quarl plugin and runtime
#   naive    the plugin's test mode: every block counts its own entries
#   clang    clang's own instrumentation, -fprofile-generate
#
# Checks that every block count of the Quarl profile equals the naive
# count, then prints the figures of the README: functions instrumented,
# counters per block, compile time with the plugin and with clang's own
# instrumentation against the plain build (best of COMPILES), run time of
# each instrumented build next to the plain one (best of RUNS, both
# interleaved), and profile bytes next to clang's .profraw.
# Usage: bench/sqlite/measure.sh [BUILD_DIR] ; SCALE, RUNS, COMPILES from
# the environment (defaults 10, 5, 2).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-$here/../../build}" && pwd)
scale=${SCALE:-10}
runs=${RUNS:-5}
compiles=${COMPILES:-2}
source "$here/../common.sh"
prepare "$build" bc npm
src=$(fetch_sqlite)

compile() { # VARIANT : compiles sqlite3.c to VARIANT.o
    case $1 in
    plain) "$clang_cc" -O2 -c "$src/sqlite3.c" -o plain.o ;;
    quarl) "$clang_cc" -O2 -fpass-plugin="$plugin" -c "$src/sqlite3.c" -o quarl.o ;;
    naive) QUARL_NAIVE_COUNTS=1 "$clang_cc" -O2 -fpass-plugin="$plugin" -c "$src/sqlite3.c" -o naive.o ;;
    clang) "$clang_cc" -O2 -fprofile-generate -c "$src/sqlite3.c" -o clang.o ;;
    esac
}
link() { # VARIANT
    local extra=()
    case $1 in
    quarl | naive) extra=(-fpass-plugin="$plugin" "${runtime_link[@]}") ;;
    clang) extra=(-fprofile-generate) ;;
    esac
    [ "$1" = naive ] && export QUARL_NAIVE_COUNTS=1
    "$clang_cc" -O2 -I"$src" "$here/workload.c" "$1.o" "${extra[@]}" -lpthread -ldl -lm -o "$1"
    unset QUARL_NAIVE_COUNTS
}

echo "compiling sqlite3.c (best of $compiles, interleaved)..." >&2
timed() { compile "$1"; }
interleaved_best "$compiles" plain quarl clang
compile_plain=${best_time[plain]} compile_quarl=${best_time[quarl]} compile_clang=${best_time[clang]}
compile naive
for variant in plain quarl naive clang; do link $variant; done

# The block counts of one run against the direct count.
QUARL_PROFILE_FILE=$work/check.quarlprof ./quarl "$scale" >quarl.out
QUARL_PROFILE_FILE=$work/naive.quarlprof ./naive "$scale" >naive.out
cmp -s quarl.out naive.out || { echo "the two builds disagree on the workload's results" >&2; exit 1; }
"$quarl" profile show --blocks check.quarlprof >quarl.blocks
"$quarl" profile show --blocks naive.quarlprof >naive.blocks
if ! cmp -s quarl.blocks naive.blocks; then
    diff naive.blocks quarl.blocks | head -20 >&2
    echo "FAIL: block counts differ from the direct count" >&2
    exit 1
fi
checked=$(grep -c '^  block' quarl.blocks)

echo "running the workload (scale $scale, best of $runs)..." >&2
timed() { QUARL_PROFILE_FILE=$work/runs.quarlprof LLVM_PROFILE_FILE=$work/runs-%p.profraw "./$1" "$scale"; }
best_time=()
interleaved_best "$runs" plain quarl clang
run_plain=${best_time[plain]} run_quarl=${best_time[quarl]} run_clang=${best_time[clang]}
rm -f runs-*.profraw
LLVM_PROFILE_FILE=$work/one.profraw ./clang "$scale" >/dev/null

"$quarl" profile show check.quarlprof >summary.txt
functions=$(($(wc -l <summary.txt) - 1))
counters=$(awk 'NR > 1 { n += $3 } END { print n }' summary.txt)
blocks=$(awk 'NR > 1 { split($2, r, "/"); n += r[2] } END { print n }' summary.txt)

cat <<TABLE
| figure | value |
|---|---|
| block counts checked against the direct count | $checked, all equal |
| functions instrumented | $functions |
| counters per block | $counters / $blocks = $(ratio "$counters" "$blocks") |
| compile sqlite3.c -O2, plain | ${compile_plain} s |
| compile sqlite3.c -O2, with the plugin | ${compile_quarl} s ($(percent "$compile_quarl" "$compile_plain")%) |
| compile sqlite3.c -O2, clang -fprofile-generate | ${compile_clang} s ($(percent "$compile_clang" "$compile_plain")%) |
| workload run time: plain | ${run_plain} s |
| workload run time: Quarl instrumented | ${run_quarl} s ($(percent "$run_quarl" "$run_plain")%) |
| workload run time: clang -fprofile-generate | ${run_clang} s ($(percent "$run_clang" "$run_plain")%) |
| profile bytes: Quarl / clang .profraw | $(stat -c %s check.quarlprof) / $(stat -c %s one.profraw) |
TABLE
