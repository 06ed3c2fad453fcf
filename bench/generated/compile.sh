#!/usr/bin/env bash
# Compile cost on generated code: one function of N cases, as a switch
# whose cases hold an if/else each, and as a chain of N if/else-if tests,
# compiled plain, with clang's -fprofile-generate and with the Quarl
# plugin, then with each one's profile (-fprofile-use, Quarl's profile
# use), at -O0 and -O2. Prints wall time and peak memory of each compile
# and Quarl's ratios to clang's. A case is about five edges of the graph.
# Usage: bench/generated/compile.sh [BUILD_DIR]; CASES (default
# "2000 10000 20000"), SHAPES (default "switch chain") and LEVELS (default
# "-O0 -O2") from the environment. Needs the clang and llvm-profdata of the plugin's LLVM and
# GNU time.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../common.sh"
prepare "$(cd "${1:-$here/../../build}" && pwd)" bc /usr/bin/time
# Clang parses and emits an else-if chain by recursion: a chain of 10,000
# overflows its stack (plain clang included) at the usual 8 MB limit.
ulimit -s unlimited

generate() { # SHAPE CASES: the function f in SHAPE-CASES.c
    local shape=$1 cases=$2
    awk -v shape="$shape" -v n="$cases" 'BEGIN {
        print "int f(int x, int y)\n{\n    int r = 0;"
        if (shape == "switch") {
            print "    switch (x) {"
            for (i = 0; i < n; i++)
                printf "    case %d: if (y > %d) r += %d; else r -= %d; break;\n", i, i % 97, i, i % 13
            print "    default: r = -1;\n    }"
        } else {
            for (i = 0; i < n; i++)
                printf "    %sif (x == %d) r = y > %d ? %d : -%d;\n", i ? "else " : "", i, i % 97, i, i % 13
            print "    else r = -1;"
        }
        print "    return r;\n}" }' >"$shape-$cases.c"
}

# A training run that reaches every case.
cat >driver.c <<'DRIVER'
int f(int x, int y);
int main(int argc, char **argv)
{
    (void)argv;
    long sum = 0;
    for (int i = 0; i < 300000; ++i)
        sum += f(i % (argc * 20011), i % 101);
    return (int)(sum & 1);
}
DRIVER

measured() { # NAME COMMAND...: seconds and peak KB of one compile into $NAME.cost
    local name=$1
    shift
    /usr/bin/time -f "%e %M" -o "$name.cost" "$@" 2>"$name.err" >/dev/null
}
cost() { cat "$1.cost"; }
row_ratio() { # A B: "time ratio, memory ratio" of cost files A over B
    read -r t1 m1 <"$1.cost"
    read -r t2 m2 <"$2.cost"
    echo "$(echo "scale=2; $t1 / $t2" | bc)x, $(echo "scale=2; $m1 / $m2" | bc)x"
}
gb() { read -r t m <"$1.cost"; echo "$t s, $(echo "scale=2; $m / 1048576" | bc) GB"; }

echo "| shape | cases | level | plain | clang -fprofile-generate | Quarl instrumenting | Quarl / clang | clang -fprofile-use | Quarl profile use | Quarl / clang |"
echo "|---|---|---|---|---|---|---|---|---|---|"
for shape in ${SHAPES:-switch chain}; do
    for cases in ${CASES:-2000 10000 20000}; do
        generate "$shape" "$cases"
        src=$shape-$cases.c
        for level in ${LEVELS:--O0 -O2}; do
            measured plain "$clang_cc" $level -c "$src" -o plain.o
            measured clang-gen "$clang_cc" $level -fprofile-generate -c "$src" -o clang-gen.o
            measured quarl-gen "$clang_cc" $level -fpass-plugin="$plugin" -c "$src" -o quarl-gen.o
            "$clang_cc" -O2 -fprofile-generate driver.c clang-gen.o -o clang-train
            "$clang_cc" -O2 driver.c quarl-gen.o "${runtime_link[@]}" -lpthread -o quarl-train
            rm -f ./*.profraw train.quarlprof
            LLVM_PROFILE_FILE=train.profraw ./clang-train || true
            "$llvm_profdata" merge -o train.profdata train.profraw
            QUARL_PROFILE_FILE=train.quarlprof ./quarl-train || true
            measured clang-use "$clang_cc" $level -fprofile-use=train.profdata -c "$src" -o clang-use.o
            QUARL_PROFILE_USE=train.quarlprof measured quarl-use "$clang_cc" $level -fpass-plugin="$plugin" -c "$src" -o quarl-use.o
            ! grep -q 'warning: .*quarl' quarl-use.err || { cat quarl-use.err >&2; echo "FAIL: profile not used" >&2; exit 1; }
            echo "| $shape | $cases | $level | $(gb plain) | $(gb clang-gen) | $(gb quarl-gen) | $(row_ratio quarl-gen clang-gen) | $(gb clang-use) | $(gb quarl-use) | $(row_ratio quarl-use clang-use) |"
        done
    done
done
