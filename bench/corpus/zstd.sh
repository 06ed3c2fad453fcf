#!/usr/bin/env bash
# zstd (Debian source package libzstd): the compression library and its
# command-line tool, with worker threads. Tests: its own tests/playTests.sh.
# Block counts are compared on a single-threaded round trip at several
# levels; with -T2 the counts of a run are checked for consistency with
# atomic counters (QUARL_ATOMIC_COUNTERS=1), since no two threaded runs
# interleave alike. Training: generated data at levels 1, 3 and 9; timed:
# the zstd source tree as one tar, compressed at levels 1, 3, 9 and 15 and
# decompressed.
set -euo pipefail
PACKAGE=libzstd
source "$(dirname "$0")/common.sh"

build() {
    local options=(HAVE_ZLIB=0 HAVE_LZMA=0 HAVE_LZ4=0)
    # Its link probes (threads, linker options) pass FLAGS, which hold
    # LDFLAGS but not LDLIBS: the runtime goes there, so that instrumented
    # builds configure as the plain one does.
    LDFLAGS="$CFLAGS $LDFLAGS" make -j2 -C programs zstd "${options[@]}" &&
        # The generator of test data is no part of what is measured.
        CC="$clang_cc" CFLAGS=-O2 make -C tests datagen "${options[@]}"
}
run_tests() {
    (cd "$1/tests" && ZSTD_BIN=../programs/zstd DATAGEN_BIN=./datagen ./playTests.sh >playTests.log 2>&1) ||
        { tail -20 "$1/tests/playTests.log"; return 1; }
    echo "playTests.sh passed"
}
round_trip() { # DIR INPUT LEVEL... (THREADS: zstd's options for threads, -T1 unless set)
    local dir=$1 input=$2 compression threads
    read -r -a threads <<<"${THREADS:--T1}"
    shift 2
    for compression in "$@"; do
        "$dir/programs/zstd" -q -f "${threads[@]}" -"$compression" "$input" -o "$input.zst"
        "$dir/programs/zstd" -q -f "${threads[@]}" -d "$input.zst" -o "$input.out"
        cmp -s "$input" "$input.out"
    done
}
counted() {
    "$1/tests/datagen" -g3MB -P60 -s7 >"$1/counted.bin"
    # Even -T1 hands the work to a thread of its own, and so does file
    # reading and writing, and how often a thread then finds a queue busy
    # depends on timing: the runs whose counts are compared use no threads.
    THREADS="--single-thread --no-asyncio" round_trip "$1" "$1/counted.bin" 1 3 9 15
}
train() {
    "$1/tests/datagen" -g24MB -P40 -s1 >"$1/train.bin"
    round_trip "$1" "$1/train.bin" 1 3 9
}
workload() {
    [ -f "$1/workload.tar" ] || tar cf "$1/workload.tar" -C "$work/src" lib programs tests
    round_trip "$1" "$1/workload.tar" 1 3 9 15
}
extra_checks() {
    echo "== $PACKAGE: -T2 with atomic counters" >&2
    QUARL_ATOMIC_COUNTERS=1 corpus_build atomic-O2 "$instrumented_libs" -O2 -fpass-plugin="$plugin"
    "$work/atomic-O2/tests/datagen" -g48MB -P50 -s3 >"$work/threads.bin"
    for run in 1 2 3; do
        rm -f "$work/threads.quarlprof"
        QUARL_PROFILE_FILE=$work/threads.quarlprof "$work/atomic-O2/programs/zstd" -q -f -T2 -5 \
            "$work/threads.bin" -o "$work/threads.zst"
        "$quarl" profile show "$work/threads.quarlprof" >"$work/threads.table"
        ! grep -q '(repaired)' "$work/threads.table" ||
            { echo "FAIL: $PACKAGE -T2 run $run: atomic counters contradict each other" >&2; exit 1; }
    done
    echo "$PACKAGE -T2: three runs with atomic counters, every count consistent" >&2
}

corpus_main
