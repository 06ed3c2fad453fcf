#!/usr/bin/env bash
# Profile-guided optimisation of a real program through Quarl, next to
# clang's own. SQLite (the amalgamation that better-sqlite3@13.2.0 ships,
# fetched with 'npm pack'; none of it is kept in the repository) is built
# four ways at -O2:
#
#   none     no profile
#   clang    clang's own IR profile: -fprofile-generate, a training run,
#            llvm-profdata merge, -fprofile-use
#   quarl    Quarl's profile of the same training run: the plugin
#            instruments, the training run writes the profile, the plugin
#            uses it (-mllvm -quarl-profile-use)
#   clang-edges
#            for reference, clang's own profile without its value profiles
#            (-mllvm -disable-vp when training and using): branch and entry
#            counts only, what Quarl's profile carries without its values
#   quarl-instrumented
#            for reference, the instrumented build that trained
#
# The training run is the workload of ../sqlite/workload.c (or, with
# WORKLOAD=analytics, ../sqlite/analytics.c: queries on expressions,
# strings, JSON and windows rather than inserts and joins) at scale TRAIN,
# the measured runs at scale SCALE, interleaved, best of RUNS each; sqlite3.c
# compiles are the best of COMPILES. Prints the README's table: run times,
# speedup over no profile, Quarl's speedup as a fraction of clang's, and the
# compile time of each build.
# Usage: bench/pgo/measure.sh [BUILD_DIR]; TRAIN, SCALE, RUNS, COMPILES from
# the environment (defaults 3, 10, 10, 2). Needs npm, bc and the clang and
# llvm-profdata of the plugin's LLVM.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "${1:-$here/../../build}" && pwd)
train=${TRAIN:-3}
scale=${SCALE:-10}
runs=${RUNS:-10}
compiles=${COMPILES:-2}
source "$here/../common.sh"
prepare "$build" bc npm
src=$(fetch_sqlite)

compile() { # NAME CLANG-FLAGS... : sqlite3.c at -O2 to NAME.o, warnings in NAME.err
    local name=$1
    shift
    "$clang_cc" -O2 "$@" -c "$src/sqlite3.c" -o "$name.o" 2>"$name.err"
}
link() { # NAME CLANG-FLAGS...
    local name=$1
    shift
    "$clang_cc" -O2 workload.o "$name.o" "$@" -lpthread -ldl -lm -o "$name"
}
quarl_use=(-fplugin="$plugin" -fpass-plugin="$plugin" -mllvm -quarl-profile-use="$work/train.quarlprof")

echo "building and training..." >&2
"$clang_cc" -O2 -I"$src" -c "$here/../sqlite/${WORKLOAD:-workload}.c" -o workload.o
clang_train() { # NAME CLANG-FLAGS... : NAME.profdata from the training run
    local name=$1
    shift
    compile $name-gen -fprofile-generate "$@"
    link $name-gen -fprofile-generate
    LLVM_PROFILE_FILE=$work/$name-%p.profraw ./$name-gen "$train" >/dev/null
    "$llvm_profdata" merge -o $name.profdata $name-*.profraw
}
clang_train clang
clang_train clang-edges -mllvm -disable-vp
compile quarl-instrumented -fpass-plugin="$plugin"
link quarl-instrumented "${runtime_link[@]}"
QUARL_PROFILE_FILE=$work/train.quarlprof ./quarl-instrumented "$train" >/dev/null

echo "compiling sqlite3.c (best of $compiles, interleaved)..." >&2
timed() {
    case $1 in
    none) compile none ;;
    clang) compile clang -fprofile-use="$work/clang.profdata" ;;
    quarl) compile quarl "${quarl_use[@]}" ;;
    esac
}
interleaved_best "$compiles" none clang quarl
compile_none=${best_time[none]} compile_clang=${best_time[clang]} compile_quarl=${best_time[quarl]}
compile_instrumented=$(best 1 compile quarl-instrumented -fpass-plugin="$plugin")
compile_edges=$(best 1 compile clang-edges -fprofile-use="$work/clang-edges.profdata" -mllvm -disable-vp)
for name in none clang clang-edges quarl; do link $name; done
link quarl-instrumented "${runtime_link[@]}"
warnings=$(grep -c 'warning: .*quarl' quarl.err || true)

for name in clang clang-edges quarl quarl-instrumented; do
    QUARL_PROFILE_FILE=$work/measure.quarlprof ./$name "$scale" >$name.out
    ./none "$scale" >none.out
    cmp -s none.out $name.out || { echo "FAIL: $name computes other results" >&2; exit 1; }
done

echo "running the workload at scale $scale, best of $runs..." >&2
timed() { QUARL_PROFILE_FILE=$work/measure.quarlprof "./$1" "$scale"; }
best_time=()
interleaved_best "$runs" none clang clang-edges quarl quarl-instrumented
declare -n time=best_time

speedup() { ratio "${time[none]}" "${time[$1]}"; }
fraction() { echo "scale=3; (${time[none]} / ${time[quarl]} - 1) / (${time[none]} / ${time[$1]} - 1)" | bc; }
cat <<TABLE
| build (-O2) | compile sqlite3.c | run time, scale $scale | speedup over no profile |
|---|---|---|---|
| no profile | ${compile_none} s | ${time[none]} s | 1.000 |
| clang's own profile (-fprofile-use) | ${compile_clang} s | ${time[clang]} s | $(speedup clang) |
| Quarl's profile (-quarl-profile-use) | ${compile_quarl} s | ${time[quarl]} s | $(speedup quarl) |
| clang's own profile without value profiles (for reference) | ${compile_edges} s | ${time[clang-edges]} s | $(speedup clang-edges) |
| Quarl instrumented (for reference) | ${compile_instrumented} s | ${time[quarl-instrumented]} s | $(speedup quarl-instrumented) |

Quarl's speedup as a fraction of clang's own, (speedup - 1) / (clang's speedup - 1): $(fraction clang);
of clang's without value profiles: $(fraction clang-edges).
Compile time with Quarl's profile against clang's -fprofile-use: $(percent "$compile_quarl" "$compile_clang")%.
Training run: scale $train. Quarl profile-use warnings: $warnings.
TABLE
