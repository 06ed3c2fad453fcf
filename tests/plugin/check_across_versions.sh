#!/usr/bin/env bash
# A profile trained with one LLVM's plugin and used with another's, both
# ways, at -O0 and -O2, on the C++ program: the program built with the
# profile prints what the trained one printed, the functions whose graph
# came out differently get the usual warning and nothing else, and most
# functions still fit.
# Environment: CLANGXX, PLUGIN, RUNTIME, QUARL of this build; OTHER_BUILD,
# the build directory of the plugin for another LLVM.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
fail() { echo "FAIL (across versions): $*" >&2; exit 1; }

other_plugin=$(ls "$OTHER_BUILD"/llvm-plugin/quarl_llvm-*.so)
other_version=${other_plugin##*quarl_llvm-}
other_version=${other_version%.so}
other_clangxx=/usr/lib/llvm-$other_version/bin/clang++
[ -x "$other_clangxx" ] || other_clangxx=$(command -v "clang++-$other_version") ||
    fail "no clang++ for LLVM $other_version"
sources=("$here/cxx_main.cpp" "$here/cxx_shapes.cpp")

# SIDE: "this" or "other"; sets clangxx, plugin, runtime.
side() {
    if [ "$1" = this ]; then
        clangxx=$CLANGXX plugin=$PLUGIN runtime=$RUNTIME
    else
        clangxx=$other_clangxx plugin=$other_plugin runtime=$OTHER_BUILD/runtime/libquarl_rt.a
    fi
}

for direction in "this other" "other this"; do
    read -r trainer user <<<"$direction"
    for level in -O0 -O2; do
        side "$trainer"
        rm -f train.quarlprof
        $clangxx -std=c++17 "$level" -fpass-plugin="$plugin" "${sources[@]}" \
            -Wl,--whole-archive "$runtime" -Wl,--no-whole-archive -lpthread -o trained
        QUARL_PROFILE_FILE=$work/train.quarlprof ./trained >trained.out
        side "$user"
        $clangxx -std=c++17 "$level" -fplugin="$plugin" -fpass-plugin="$plugin" \
            -mllvm -quarl-profile-use="$work/train.quarlprof" "${sources[@]}" -o used 2>used.err ||
            fail "$trainer -> $user $level: the build with the profile failed: $(cat used.err)"
        ./used >used.out
        cmp -s trained.out used.out || fail "$trainer -> $user $level: the output differs"
        functions=$("$QUARL" profile show train.quarlprof | tail -n +2 | wc -l)
        warnings=$(grep -c "warning:" used.err || true)
        differ=$(grep -c "warning: .*: quarl: .*: the profile was made from other code" used.err || true)
        [ "$warnings" -eq "$differ" ] || fail "$trainer -> $user $level: other warnings: $(cat used.err)"
        [ $((2 * differ)) -lt "$functions" ] ||
            fail "$trainer -> $user $level: $differ of $functions functions do not fit"
        echo "$trainer -> $user (LLVM $other_version) $level: $((functions - differ)) of $functions functions fit"
    done
done
