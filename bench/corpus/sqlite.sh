#!/usr/bin/env bash
# SQLite 3.46 (the amalgamation that the npm package better-sqlite3@13.2.0
# ships): the database already measured by ../sqlite and ../pgo, here in the
# corpus's form. The amalgamation has no test suite: the tests are the
# workload of ../sqlite/workload.c at scale 1, whose output every build must
# reproduce. Training: scale 3; timed: scale 10.
set -euo pipefail
PACKAGE=sqlite
workload_source=$(cd "$(dirname "$0")/../sqlite" && pwd)/workload.c
source "$(dirname "$0")/common.sh"

fetch_source() {
    (cd "$work" && npm pack --silent better-sqlite3@13.2.0 >/dev/null &&
        tar xzf better-sqlite3-13.2.0.tgz package/deps/sqlite3)
    mv "$work/package/deps/sqlite3" "$work/src"
}
build() {
    # shellcheck disable=SC2086
    $CC $CFLAGS -c sqlite3.c -o sqlite3.o &&
        # shellcheck disable=SC2086
        $CC $CFLAGS -I. "$workload_source" sqlite3.o $LIBS -lpthread -ldl -lm -o workload
}
run_tests() { "$1/workload" 1; }
train() { "$1/workload" 3; }
workload() { "$1/workload" 10; }

corpus_main
