#!/usr/bin/env bash
# yaml-cpp (Debian source package yaml-cpp): C++ that throws exceptions in
# normal use, templates in headers. Tests: its own test suite (GoogleTest
# from the system, as Debian builds it; needs libgmock-dev). Training: the
# test suite; timed: parsing, walking and emitting a generated document of
# nested maps, sequences, anchors and scalars with the library's own
# command-line tool util/parse... built from a small driver here.
set -euo pipefail
PACKAGE=yaml-cpp
patches=(use-archive-googletest.patch)
source "$(dirname "$0")/common.sh"
driver=$(cd "$(dirname "$0")/yaml-cpp" && pwd)/workload.cpp

build() {
    cmake -S . -B out -G "Unix Makefiles" -DCMAKE_BUILD_TYPE=None -DCMAKE_C_COMPILER="$CC" \
        -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_C_FLAGS="$CFLAGS" \
        -DCMAKE_EXE_LINKER_FLAGS="$LDFLAGS" -DYAML_CPP_BUILD_TESTS=ON -DYAML_CPP_BUILD_TOOLS=OFF &&
        make -C out -j2 yaml-cpp yaml-cpp-tests &&
        # shellcheck disable=SC2086
        $CXX $CXXFLAGS -Iinclude "$driver" out/libyaml-cpp.a $LIBS -o out/workload
}
run_tests() {
    (cd "$1/out" && test/yaml-cpp-tests >tests.log 2>&1) || { tail -20 "$1/out/tests.log"; return 1; }
    grep -E '^\[  PASSED  \]|^\[  FAILED  \]' "$1/out/tests.log"
}
train() { (cd "$1/out" && test/yaml-cpp-tests >/dev/null 2>&1); }
# GoogleTest prints each test's time, whose digits vary from run to run.
counted() { (cd "$1/out" && test/yaml-cpp-tests --gtest_print_time=0); }
workload() { "$1/out/workload" 4000; }

corpus_main
