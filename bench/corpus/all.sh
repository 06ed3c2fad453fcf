#!/usr/bin/env bash
# Every program of the corpus in turn (see common.sh for what each run
# does and the environment it reads); stops at the first failure.
# Usage: bench/corpus/all.sh [PROGRAM...]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
programs=("$@")
[ ${#programs[@]} -gt 0 ] || programs=(sqlite lua zstd ninja yaml-cpp)
for program in "${programs[@]}"; do
    bash "$here/$program.sh"
    echo
done
