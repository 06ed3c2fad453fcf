#!/usr/bin/env bash
# Every function of the plugin's test programs, at -O0 and -O2, placed
# both ways: without formulas (what the plugin uses) and with them; the
# plugin reports an error where the counters or stored words differ.
# Usage: check_placement.sh; CLANG, CLANGXX and PLUGIN name the tools.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
functions=0
for source in "$here"/*.c "$here"/*.cpp; do
    compiler=$CLANG
    [[ $source == *.cpp ]] && compiler="$CLANGXX -std=c++17"
    for level in -O0 -O2; do
        # shellcheck disable=SC2086
        QUARL_CHECK_PLACEMENT=1 $compiler $level -fpass-plugin="$PLUGIN" -S -emit-llvm "$source" \
            -o "$work/out.ll" || { echo "FAIL: $(basename "$source") $level" >&2; exit 1; }
        functions=$((functions + $(grep -c '^@__quarl_counters\.' "$work/out.ll" || true)))
    done
done
[ "$functions" -gt 100 ] || { echo "FAIL: only $functions functions instrumented" >&2; exit 1; }
echo "$functions functions placed alike both ways"
