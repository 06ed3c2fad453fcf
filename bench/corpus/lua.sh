#!/usr/bin/env bash
# Lua 5.4 (Debian source package lua5.4): one large dispatch loop, errors
# by longjmp, coroutines. The package ships no test suite: tests.lua here
# exercises errors, coroutines and the string and table libraries, and must
# print tests.expected; bench.lua is the training (scale 10) and timed
# (scale 60) workload.
set -euo pipefail
PACKAGE=lua5.4
scripts=$(cd "$(dirname "$0")/lua" && pwd)
source "$(dirname "$0")/common.sh"

# The string-hash seed is fixed (Lua's own build option): by default it
# mixes the time and addresses in, and builds whose runs are compared block
# by block must hash alike.
build() {
    make -C src -j2 CC="$CC" MYCFLAGS="$CFLAGS -D'luai_makeseed(L)=0u'" MYLDFLAGS="$CFLAGS" MYLIBS="$LIBS" \
        linux-noreadline
}
# luaS_new caches C strings by their address modulo STRCACHE_N, so whether
# a lookup hits depends on where the linker put the literal; with one slot
# it depends only on which literal came last, the same in every layout.
counted_flags="-DSTRCACHE_N=1 -DSTRCACHE_M=2"

# Each build runs as src/lua from its own directory: the interpreter's path
# is a Lua string, whose hash and length would make runs of builds in other
# directories differ.
run_tests() {
    (cd "$1" && src/lua "$scripts/tests.lua") | diff -u "$scripts/tests.expected" - && echo "tests.lua passed"
}
train() { (cd "$1" && src/lua "$scripts/bench.lua" 10); }
workload() { (cd "$1" && src/lua "$scripts/bench.lua" 60); }

corpus_main
