#!/usr/bin/env bash
# ninja (Debian source package ninja-build): C++ with STL containers and
# virtual calls over several files, built with CMake. Tests: its own
# ninja_test. Training: ninja_test; timed: a generated project of 6,000
# compiles in 40 libraries (commands that only touch their outputs) planned
# in full with -n, and brought up to date when it already is (no-op).
set -euo pipefail
PACKAGE=ninja-build
source "$(dirname "$0")/common.sh"

build() {
    cmake -S . -B out -G "Unix Makefiles" -DCMAKE_BUILD_TYPE=None -DCMAKE_C_COMPILER="$CC" \
        -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_C_FLAGS="$CFLAGS" \
        -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" &&
        make -C out -j2 ninja ninja_test
}
run_tests() {
    (cd "$1/out" && ./ninja_test >ninja_test.log 2>&1) || { tail -20 "$1/out/ninja_test.log"; return 1; }
    tr '\r' '\n' <"$1/out/ninja_test.log" | tail -1
}
train() { (cd "$1/out" && ./ninja_test >/dev/null 2>&1); }
# The block-count check runs every suite of ninja_test but BuildTest, whose
# status printer formats the time elapsed, and SubprocessTest, whose reads
# depend on when the child's output arrives.
counted() {
    local suite
    for suite in BuildDryRun BuildLogRecompactTest BuildLogTest BuildWithDepsLogTest BuildWithLogTest \
        BuildWithQueryDepsLogTest CLParserTest CanonicalizePath CleanDeadTest CleanTest DepfileParserTest \
        DepsLogTest DiskInterfaceTest DyndepParserTest EditDistanceTest ElideMiddle GraphTest JSONTest Lexer \
        MissingDependencyScannerTest ParserTest PathEscaping PlanTest StatTest State StringPieceUtilTest \
        StripAnsiEscapeCodes; do
        (cd "$1/out" && ./ninja_test --gtest_filter="$suite.*")
    done
}

# The generated project: each compile depends on its source and on four of
# 50 headers; each library on its 150 objects; the program on every library.
generate_project() { # DIR
    mkdir -p "$1/src" "$1/include"
    awk 'BEGIN {
        print "rule cc\n  command = touch $out\n  description = CC $out"
        print "rule ar\n  command = touch $out\n  description = AR $out"
        print "rule link\n  command = touch $out"
        for (lib = 0; lib < 40; ++lib) {
            objects = ""
            for (i = 0; i < 150; ++i) {
                n = lib * 150 + i
                printf "build obj/f%d.o: cc src/f%d.c | include/h%d.h include/h%d.h include/h%d.h include/h%d.h\n",
                    n, n, n % 50, (n * 7) % 50, (n * 13) % 50, (n * 31) % 50
                objects = objects " obj/f" n ".o"
            }
            print "build lib/lib" lib ".a: ar" objects
            libraries = libraries " lib/lib" lib ".a"
        }
        print "build bin/program: link" libraries
        print "default bin/program" }' >"$1/build.ninja"
    (cd "$1/src" && seq 0 5999 | sed 's/^/f/; s/$/.c/' | xargs touch)
    (cd "$1/include" && seq 0 49 | sed 's/^/h/; s/$/.h/' | xargs touch)
}
# Timed: the whole project planned with -n (three times) in a copy never
# built, and brought up to date (five times) in a copy built once, the
# first time round (best-of timing leaves that round out).
workload() {
    local fresh=$1/project-fresh built=$1/project-built
    if [ ! -f "$built/bin/program" ]; then
        generate_project "$fresh"
        generate_project "$built"
        "$1/out/ninja" -C "$built" -j8 >/dev/null
    fi
    for _ in 1 2 3; do "$1/out/ninja" -C "$fresh" -n >/dev/null; done
    for _ in 1 2 3 4 5; do "$1/out/ninja" -C "$built" >/dev/null; done
}

corpus_main
