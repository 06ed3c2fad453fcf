#!/usr/bin/env bash
# The plugin's tests against every LLVM installed (Debian's llvm-N-dev with
# clang-N, N from 14): one build directory each (build-llvmN, or under
# BUILD_ROOT), the newest also used for the test across versions.
# Usage: tests/plugin/run_all_versions.sh [BUILD_ROOT]
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
root=${1:-$source_dir}
versions=()
for config in /usr/lib/llvm-*/lib/cmake/llvm/LLVMConfig.cmake; do
    version=${config#/usr/lib/llvm-}
    version=${version%%/*}
    [ "$version" -ge 14 ] && versions+=("$version")
done
mapfile -t versions < <(printf '%s\n' "${versions[@]}" | sort -rn)
[ ${#versions[@]} -gt 0 ] || { echo "no LLVM 14 or later installed" >&2; exit 2; }
newest=$root/build-llvm${versions[0]}
failed=()
for version in "${versions[@]}"; do
    build=$root/build-llvm$version
    other=()
    [ "$version" != "${versions[0]}" ] && other=(-DQUARL_OTHER_LLVM_BUILD="$newest")
    echo "== LLVM $version"
    if cmake -S "$source_dir" -B "$build" -DQUARL_LLVM_VERSION="$version" "${other[@]}" >/dev/null &&
        cmake --build "$build" -j2 --target quarl_llvm quarl_rt quarl_tool >/dev/null &&
        ctest --test-dir "$build" --output-on-failure -j2 -R '^plugin[.]'; then
        :
    else
        failed+=("$version")
    fi
done
[ ${#failed[@]} -eq 0 ] || { echo "plugin tests failed with LLVM ${failed[*]}" >&2; exit 1; }
echo "plugin tests passed with LLVM ${versions[*]}"
