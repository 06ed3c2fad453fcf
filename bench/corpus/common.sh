# The corpus of real programs, built with the plugin through their own build
# systems and checked with their own tests. Sourced by each program's
# script, which defines:
#
#   PACKAGE                  the Debian source package
#   fetch_source             (optional) unpacks the source into $work/src
#                            instead, for a program that is no Debian
#                            source package
#   patches                  (optional) an array of the package's Debian
#                            patches to apply
#   build DIR                builds the program in DIR (a fresh copy of the
#                            source; its commands chained with &&, since a
#                            failure is not caught otherwise)
#                            with $CC, $CXX, $CFLAGS, $CXXFLAGS and
#                            $LIBS (what to link into every program, after
#                            its objects) or $LDFLAGS (the same, to go
#                            before them)
#   run_tests DIR            runs the program's tests; prints their outcome
#                            (what must be the same in every build)
#   train DIR                the training workload
#   workload DIR             the timed workload
#   counted DIR              (optional) what is run for the block-count
#                            check; the tests by default
#   extra_checks             (optional) run after the block-count check
#   counted_flags            (optional) compile flags for the builds whose
#                            block counts are compared (what makes runs of
#                            differently laid out binaries take the same
#                            paths)
#
# and then calls corpus_main. Steps, each printed as it goes:
#   1. the plain build (-O2) and its tests: the reference outcome;
#   2. at -O0 and -O2, the plugin's build and its direct-count build: the
#      tests' outcome must be the reference, and every block count of the
#      counted run must equal the direct count;
#   3. PGO: clang's -fprofile-generate and the plugin's instrumented build
#      trained on the training workload, built again with each profile,
#      and the timed workload run interleaved, best of RUNS; compile times
#      best of COMPILES. Prints one table row per build.
# Environment: QUARL_BUILD (Quarl's build directory, default build/),
# CORPUS_CACHE (where sources are downloaded, default ~/.cache/quarl-corpus),
# RUNS (default 10), COMPILES (default 1), STEPS (default "tests counts pgo").
# Needs the clang and llvm-profdata of the plugin's LLVM, bc, dpkg-dev (for apt-get source).

corpus_here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$corpus_here/../common.sh"

# A deb-src entry for the mirror that the machine's own apt sources name,
# so that 'apt-get source' works; written once, outside the repository.
corpus_enable_sources() {
    local list=/etc/apt/sources.list.d/quarl-corpus-src.sources
    if ! apt-cache showsrc "$PACKAGE" 2>/dev/null | grep -q '^Package:'; then
        if [ ! -f $list ] && [ -f /etc/apt/sources.list.d/debian.sources ]; then
            awk '/^URIs:/ { uri = $2 }
                 /^Suites:/ && !done && uri !~ /security/ {
                     print "Types: deb-src\nURIs: " uri "\n" $0 "\nComponents: main"
                     print "Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg"; done = 1 }' \
                /etc/apt/sources.list.d/debian.sources >$list
        elif [ ! -f $list ] && [ -f /etc/apt/sources.list ]; then
            sed -n 's/^deb \(.*\)/deb-src \1/p' /etc/apt/sources.list | grep -v security >$list.list
        fi
        apt-get update -q >/dev/null
    fi
}

# The upstream source of $PACKAGE, unpacked into $work/src.
corpus_fetch() {
    local cache=${CORPUS_CACHE:-$HOME/.cache/quarl-corpus}
    mkdir -p "$cache"
    if ! ls "$cache/${PACKAGE}"_*.orig.tar.* >/dev/null 2>&1; then
        corpus_enable_sources
        (cd "$cache" && apt-get source -q --download-only "$PACKAGE" >/dev/null)
    fi
    mkdir -p "$work/src"
    local tarball patch
    tarball=$(ls "$cache/${PACKAGE}"_*.orig.tar.* | grep -v '\.asc$' | head -1)
    tar xf "$tarball" -C "$work/src" --strip-components=1
    # The Debian patches the program's script names (patches=(...)).
    if [ -n "${patches[*]:-}" ]; then
        tar xf "$(ls "$cache/${PACKAGE}"_*.debian.tar.*)" -C "$work" debian/patches
        for patch in "${patches[@]}"; do patch -s -d "$work/src" -p1 <"$work/debian/patches/$patch"; done
    fi
}

# Builds variant NAME in $work/NAME with the given compile flags, linking
# LIBS into every program; NAIVE=1 counts every block directly.
corpus_build() { # NAME LIBS FLAGS...
    local name=$1 libs=$2 start end
    shift 2
    # Every variant is built at one path, then moved: the keys of internal
    # functions hold their source file's path, which build systems such as
    # CMake give absolute, and the builds' profiles must name them alike.
    rm -rf "$work/$name" "$work/tree"
    cp -r "$work/src" "$work/tree"
    start=$(date +%s.%N)
    (
        # LDFLAGS: the same libraries, for build systems that put linker
        # flags before the objects (the runtime archive is linked whole, so
        # either place pulls it in).
        export CC="$clang_cc" CXX="$clang_cxx" CFLAGS="$*" CXXFLAGS="$*" LIBS="$libs" LDFLAGS="$libs"
        [ "${NAIVE:-0}" = 1 ] && export QUARL_NAIVE_COUNTS=1
        cd "$work/tree" && build "$work/tree"
    ) >"$work/$name.build.log" 2>&1 || { tail -30 "$work/$name.build.log" >&2; echo "FAIL: $PACKAGE: build $name" >&2; exit 1; }
    end=$(date +%s.%N)
    mv "$work/tree" "$work/$name"
    compile_time[$name]=$(echo "$end - $start" | bc)
    grep -c 'warning: .*quarl' "$work/$name.build.log" >"$work/$name.warnings" || true
}

corpus_tests() { # NAME: the tests' outcome must be the plain build's
    QUARL_PROFILE_FILE=$work/$1.tests.quarlprof run_tests "$work/$1" >"$work/$1.tests" 2>&1 ||
        { tail -20 "$work/$1.tests" >&2; echo "FAIL: $PACKAGE: tests of $1" >&2; exit 1; }
    [ "$1" = plain ] && return
    diff -u "$work/plain.tests" "$work/$1.tests" >&2 || { echo "FAIL: $PACKAGE: $1 tests differ from plain" >&2; exit 1; }
}

corpus_counted() { # NAME PROFILE
    if declare -F counted >/dev/null; then
        QUARL_PROFILE_FILE=$2 counted "$work/$1" >/dev/null 2>&1
    else
        QUARL_PROFILE_FILE=$2 run_tests "$work/$1" >/dev/null 2>&1
    fi
}

declare -A compile_time
corpus_main() {
    local build_dir=${QUARL_BUILD:-$corpus_here/../../build} steps=${STEPS:-tests counts pgo}
    prepare "$(cd "$build_dir" && pwd)" bc
    echo "== $PACKAGE: fetching" >&2
    if declare -F fetch_source >/dev/null; then fetch_source; else corpus_fetch; fi
    local libstdcxx
    libstdcxx=$("$clang_cxx" -print-file-name=libstdc++.so)
    nm -D --defined-only "$(readlink -f "$libstdcxx")" 2>/dev/null | awk '{ sub(/@.*/, "", $NF); print $NF }' |
        sort -u >"$work/shared-symbols"
    echo "== $PACKAGE: plain build and its tests" >&2
    instrumented_libs="${runtime_link[*]} -lpthread"
    corpus_build plain "" -O2
    corpus_tests plain
    local level blocks
    for level in -O0 -O2; do
        case " $steps " in *" tests "* | *" counts "*) ;; *) continue ;; esac
        echo "== $PACKAGE: $level with the plugin, and with direct counts" >&2
        # shellcheck disable=SC2086
        corpus_build "quarl$level" "$instrumented_libs" $level -fpass-plugin="$plugin" ${counted_flags:-}
        # shellcheck disable=SC2086
        NAIVE=1 corpus_build "naive$level" "$instrumented_libs" $level -fpass-plugin="$plugin" ${counted_flags:-}
        corpus_tests "quarl$level"
        corpus_tests "naive$level"
        case " $steps " in *" counts "*) ;; *) continue ;; esac
        for variant in quarl naive; do
            rm -f "$work/$variant$level.counted.quarlprof"
            corpus_counted "$variant$level" "$work/$variant$level.counted.quarlprof"
            "$quarl" profile show --blocks "$work/$variant$level.counted.quarlprof" >"$work/$variant$level.all-blocks"
            # A function that the shared C++ library defines too (an inline
            # member of std::string, say) runs as the program's copy where
            # the linker kept one, and as the library's own elsewhere, for
            # the library's calls too; which depends on inlining, which the
            # direct count's larger increments change. Such functions are
            # left out of the comparison.
            awk 'NR == FNR { shared[$1] = 1; next } /^function / { skip = ($2 in shared) } !skip' \
                "$work/shared-symbols" "$work/$variant$level.all-blocks" >"$work/$variant$level.blocks"
        done
        left_out=$(grep -c '^function' "$work/quarl$level.all-blocks" || true)
        left_out=$((left_out - $(grep -c '^function' "$work/quarl$level.blocks" || true)))
        diff -u "$work/naive$level.blocks" "$work/quarl$level.blocks" >"$work/counts$level.diff" ||
            { head -40 "$work/counts$level.diff" >&2; echo "FAIL: $PACKAGE $level: block counts differ from the direct count" >&2; exit 1; }
        blocks=$(grep -c '^  block' "$work/quarl$level.blocks")
        echo "$PACKAGE $level: tests as plain; $blocks block counts equal the direct count" \
            "($left_out functions that libstdc++ defines too left out)" >&2
        counted_blocks[$level]=$blocks
    done
    case " $steps " in *" counts "*) ! declare -F extra_checks >/dev/null || extra_checks ;; esac
    case " $steps " in *" pgo "*) corpus_pgo ;; esac
}

declare -A counted_blocks
corpus_pgo() {
    echo "== $PACKAGE: PGO, training" >&2
    corpus_build quarl-O2 "$instrumented_libs" -O2 -fpass-plugin="$plugin"
    corpus_build clang-gen "" -O2 -fprofile-generate
    rm -f "$work"/train*.profraw "$work/train.quarlprof"
    LLVM_PROFILE_FILE=$work/train-%p.profraw train "$work/clang-gen" >/dev/null 2>&1
    "$llvm_profdata" merge -o "$work/train.profdata" "$work"/train-*.profraw
    QUARL_PROFILE_FILE=$work/train.quarlprof train "$work/quarl-O2" >/dev/null 2>&1
    corpus_build clang-use "" -O2 -fprofile-use="$work/train.profdata"
    # The profile named in the environment: -mllvm options reach the
    # assembler of .S files too, which loads no plugin and rejects them.
    QUARL_PROFILE_USE=$work/train.quarlprof corpus_build quarl-use "" -O2 -fpass-plugin="$plugin"
    corpus_tests clang-use
    corpus_tests quarl-use
    local runs=${RUNS:-10}
    echo "== $PACKAGE: timing, best of $runs interleaved" >&2
    timed() { LLVM_PROFILE_FILE=$work/timing.profraw QUARL_PROFILE_FILE=$work/timing.quarlprof workload "$work/$1"; }
    best_time=()
    interleaved_best "$runs" plain clang-use quarl-use clang-gen quarl-O2
    local warnings
    warnings=$(cat "$work/quarl-use.warnings")
    local profile_bytes=$(stat -c %s "$work/train.quarlprof") clang_bytes
    clang_bytes=$(cat "$work"/train-*.profraw | wc -c)
    local gain_clang gain_quarl share
    gain_clang=$(ratio "${best_time[plain]}" "${best_time[clang-use]}")
    gain_quarl=$(ratio "${best_time[plain]}" "${best_time[quarl-use]}")
    share=$(echo "scale=2; 100 * ($gain_quarl - 1) / ($gain_clang - 1)" | bc 2>/dev/null || echo "n/a")
    cat <<TABLE
| $PACKAGE | compile | run time | speedup |
|---|---|---|---|
| plain -O2 | ${compile_time[plain]} s | ${best_time[plain]} s | 1.000 |
| clang -fprofile-generate | ${compile_time[clang-gen]} s | ${best_time[clang-gen]} s | $(ratio "${best_time[plain]}" "${best_time[clang-gen]}") |
| Quarl instrumented | ${compile_time[quarl-O2]} s | ${best_time[quarl-O2]} s | $(ratio "${best_time[plain]}" "${best_time[quarl-O2]}") |
| clang -fprofile-use | ${compile_time[clang-use]} s | ${best_time[clang-use]} s | $gain_clang |
| Quarl profile use | ${compile_time[quarl-use]} s | ${best_time[quarl-use]} s | $gain_quarl |

$PACKAGE: profile bytes Quarl $profile_bytes, clang .profraw $clang_bytes; Quarl's gain as a share of clang's: $share%;
Quarl profile-use warnings: $warnings; block counts checked: -O0 ${counted_blocks[-O0]:-not run}, -O2 ${counted_blocks[-O2]:-not run}.
TABLE
}
