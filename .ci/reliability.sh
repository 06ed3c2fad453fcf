#!/usr/bin/env bash
# Reliability stage, run by .ci/run after the normal and sanitizer builds:
#   1. the thread test under ThreadSanitizer;
#   2. every fuzz target, built with libFuzzer, run briefly from its seed
#      corpus (fuzz/corpus/<target>/; the repository copy is not changed);
#   3. the test suite under valgrind memcheck (leaks included).
# Needs clang with its sanitizer and fuzzer runtimes, and valgrind.
set -euo pipefail
cd "$(dirname "$0")/.."

FUZZ_SECONDS=${FUZZ_SECONDS:-50}
# Build directories: $BUILD (made by .ci/run), $BUILD-tsan, $BUILD-fuzz.
BUILD=${BUILD:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# ---- Tools -----------------------------------------------------------------
runtime_ok() {
    printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char *, unsigned long) { return 0; }\n' \
        >"$work/probe.cpp"
    clang++ -fsanitize=fuzzer,address,undefined "$work/probe.cpp" -o "$work/probe_fuzz" 2>/dev/null &&
        printf 'int main() { return 0; }\n' >"$work/probe_tsan.cpp" &&
        clang++ -fsanitize=thread "$work/probe_tsan.cpp" -o "$work/probe_tsan" 2>/dev/null
}
need_packages=()
command -v clang++ >/dev/null || need_packages+=(clang)
command -v valgrind >/dev/null || need_packages+=(valgrind)
if ! command -v clang++ >/dev/null || ! runtime_ok; then
    need_packages+=(libclang-rt-dev)
fi
if [ ${#need_packages[@]} -gt 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    apt-get install -y -q "${need_packages[@]}"
fi
runtime_ok || { echo "clang cannot link the fuzzer or thread sanitizer runtime" >&2; exit 1; }

# ThreadSanitizer of older clang releases cannot map its shadow memory under
# the address randomisation of recent kernels; run without randomisation.
no_aslr=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
    no_aslr=(setarch "$(uname -m)" -R)
fi

# ---- 1. Threads under ThreadSanitizer ----------------------------------------
echo "== ThreadSanitizer: independent round trips from several threads"
cmake -S . -B "$BUILD-tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_C_FLAGS="-fsanitize=thread" -DCMAKE_CXX_FLAGS="-fsanitize=thread" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" -DQUARL_BUILD_TOOLS=OFF >/dev/null
cmake --build "$BUILD-tsan" -j2 --target quarl_thread_tests
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    "${no_aslr[@]}" "$BUILD-tsan/tests/quarl_thread_tests"

# ---- 2. Fuzz targets ------------------------------------------------------------
echo "== libFuzzer: ${FUZZ_SECONDS} s per target from the seed corpora"
cmake -S . -B "$BUILD-fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DQUARL_BUILD_FUZZERS=ON -DQUARL_BUILD_TESTS=OFF -DQUARL_BUILD_TOOLS=OFF >/dev/null
targets=(fuzz_profile_use fuzz_decode fuzz_roundtrip fuzz_profile_file)
cmake --build "$BUILD-fuzz" -j2 --target "${targets[@]}"
pids=()
for target in "${targets[@]}"; do
    mkdir -p "$work/$target/corpus" "$work/$target/artifacts"
    cp fuzz/corpus/"$target"/* "$work/$target/corpus/"
    "$BUILD-fuzz/fuzz/$target" -max_total_time="$FUZZ_SECONDS" -print_final_stats=1 \
        -artifact_prefix="$work/$target/artifacts/" "$work/$target/corpus" \
        >"$work/$target/log" 2>&1 &
    pids+=($!)
done
fuzz_failed=0
for i in "${!targets[@]}"; do
    if ! wait "${pids[$i]}"; then
        echo "-- ${targets[$i]} FAILED:" >&2
        tail -n 60 "$work/${targets[$i]}/log" >&2
        for crash in "$work/${targets[$i]}"/artifacts/*; do
            [ -f "$crash" ] && { echo "input (base64):"; base64 -w0 "$crash"; echo; } >&2
        done
        fuzz_failed=1
    else
        echo "-- ${targets[$i]}: $(grep -m1 'number_of_executed_units' "$work/${targets[$i]}/log")"
    fi
done
[ "$fuzz_failed" -eq 0 ] || exit 1

# ---- 3. Valgrind memcheck ----------------------------------------------------------
# The tests of the build .ci/run made. Left to the native and sanitizer runs:
# death tests (a deliberately aborted child is no memory error) and the
# allocation sweeps, which count live blocks themselves and would take
# minutes here.
echo "== Valgrind memcheck: the test suites"
cmake --build "$BUILD" -j2 --target quarl_tests quarl_thread_tests
for suite in "$BUILD/tests/quarl_tests" "$BUILD/tests/quarl_thread_tests"; do
    valgrind --quiet --error-exitcode=1 --leak-check=full --errors-for-leak-kinds=definite,indirect \
        "$suite" --gtest_filter='-*DeathTest*:AllocSweep.*' --gtest_brief=1
done
echo "== Reliability stage passed"
