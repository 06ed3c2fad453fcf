# Shared by the SQLite measurement scripts: checking what they need,
# fetching SQLite and timing. Sourced.

# Checks the tools and Quarl's build ($plugin, $runtime and $quarl name its
# parts; $clang_cc, $clang_cxx and $llvm_profdata the tools of the LLVM its
# plugin was built for), then moves into a scratch directory ($work) that
# is removed at exit.
prepare() { # BUILD_DIR TOOL...
    local build=$1 tool needed plugins
    shift
    plugins=("$build"/llvm-plugin/quarl_llvm-*.so)
    [ -e "${plugins[0]}" ] || { echo "no plugin in $build/llvm-plugin: build Quarl with LLVM first" >&2; exit 2; }
    plugin=${plugins[0]} runtime=$build/runtime/libquarl_rt.a quarl=$build/tools/quarl
    llvm_version=${plugin##*quarl_llvm-}
    llvm_version=${llvm_version%.so}
    clang_cc=clang-$llvm_version clang_cxx=clang++-$llvm_version llvm_profdata=llvm-profdata-$llvm_version
    for tool in "$@" "$clang_cc" "$clang_cxx" "$llvm_profdata"; do
        command -v "$tool" >/dev/null || { echo "needs $tool" >&2; exit 2; }
    done
    # The runtime is linked whole: instrumented code refers to it weakly.
    runtime_link=(-Wl,--whole-archive "$runtime" -Wl,--no-whole-archive)
    for needed in "$runtime" "$quarl"; do
        [ -e "$needed" ] || { echo "missing $needed: build Quarl first" >&2; exit 2; }
    done
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    cd "$work"
}

# The SQLite amalgamation that the npm package better-sqlite3@13.2.0 ships,
# fetched with 'npm pack' into ./package/deps/sqlite3 (nothing of it is kept
# in the repository).
fetch_sqlite() {
    npm pack --silent better-sqlite3@13.2.0 >/dev/null
    tar xzf better-sqlite3-13.2.0.tgz package/deps/sqlite3
    echo "$PWD/package/deps/sqlite3"
}

seconds() { # COMMAND... : wall seconds of one run
    local start end
    start=$(date +%s.%N)
    "$@" >/dev/null
    end=$(date +%s.%N)
    echo "$end - $start" | bc
}

best() { # N COMMAND... : the best of N runs
    local n=$1 best=
    shift
    for _ in $(seq "$n"); do
        local t
        t=$(seconds "$@")
        if [ -z "$best" ] || [ "$(echo "$t < $best" | bc)" = 1 ]; then best=$t; fi
    done
    echo "$best"
}

# The least wall time of each NAME over N rounds, the names taken in turn
# within a round so that the drift of a shared machine falls on all alike:
# best_time[NAME] after 'timed NAME', which the caller defines.
declare -A best_time
interleaved_best() { # N NAME...
    local n=$1 name t
    shift
    for _ in $(seq "$n"); do
        for name in "$@"; do
            t=$(seconds timed "$name")
            if [ -z "${best_time[$name]:-}" ] || [ "$(echo "$t < ${best_time[$name]}" | bc)" = 1 ]; then
                best_time[$name]=$t
            fi
        done
    done
}

ratio() { echo "scale=3; $1 / $2" | bc; }
percent() { # NEW OLD : the change in percent, signed
    local p
    p=$(echo "scale=1; 100 * ($1 - $2) / $2" | bc)
    case $p in -*) echo "$p" ;; *) echo "+$p" ;; esac
}
