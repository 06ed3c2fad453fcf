#!/usr/bin/env bash
# Before and after in one session: builds the benchmark against the library
# of a base revision (default: the last one whose placement allocated every
# bitset on its own and whose profile use always built formulas) and
# against the working tree, runs both in turn, and prints the README's
# tables; then loads both as shared libraries into one process and times
# their placement calls alternating (quarl_bench_interleaved), as a compiler
# makes them. Usage: bench/compare.sh [BASE_REVISION] [REPETITIONS] [ROUNDS]
set -euo pipefail
cd "$(dirname "$0")/.."
base=${1:-8846dc3}
repetitions=${2:-3}
rounds=${3:-15}
work=$(mktemp -d)
trap 'git worktree remove --force "$work/base" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT

git worktree add -q --detach "$work/base" "$base"
rm -rf "$work/base/bench" && cp -r bench "$work/base/bench" # same benchmark, old library
for tree in "$work/base" .; do
    cmake -S "$tree" -B "$tree/build-bench" -DCMAKE_BUILD_TYPE=Release -DQUARL_BUILD_BENCHMARKS=ON \
        -DQUARL_BUILD_TESTS=OFF -DQUARL_BUILD_TOOLS=OFF >/dev/null
    cmake --build "$tree/build-bench" -j2 --target quarl_bench >/dev/null
    cmake -S "$tree" -B "$tree/build-bench-shared" -DCMAKE_BUILD_TYPE=Release -DBUILD_SHARED_LIBS=ON \
        -DQUARL_BUILD_TESTS=OFF -DQUARL_BUILD_TOOLS=OFF -DQUARL_BUILD_LLVM_PLUGIN=OFF >/dev/null
    cmake --build "$tree/build-bench-shared" -j2 --target quarl >/dev/null
done
cmake --build build-bench -j2 --target quarl_bench_interleaved >/dev/null
for round in $(seq "$repetitions"); do
    for side in base after; do
        tree=$([ "$side" = base ] && echo "$work/base" || echo .)
        "$tree/build-bench/bench/quarl_bench" --benchmark_min_time=0.2 \
            --benchmark_out="$work/$side-$round.json" --benchmark_out_format=json >/dev/null
    done
done
python3 bench/tables.py --before "$work"/base-*.json --after "$work"/after-*.json
echo
echo "Placement, both builds in one process, calls alternating ($rounds rounds):"
build-bench/bench/quarl_bench_interleaved "$work/base/build-bench-shared/libquarl.so" \
    build-bench-shared/libquarl.so "$rounds" 1000 10000 50000 100000
