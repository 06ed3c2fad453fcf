#!/usr/bin/env bash
# End-to-end check of profile use: programs are instrumented, trained, and
# compiled again with their profile to LLVM IR, whose entry counts and
# branch weights are checked against what the runs did.
# Usage: check_pgo.sh CASE; CLANG, PLUGIN, RUNTIME, QUARL name the tools.
set -euo pipefail
case_name=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() { echo "FAIL ($case_name): $*" >&2; exit 1; }

compiler=$CLANG
[ "$case_name" = cxx ] && compiler="$CLANGXX -std=c++17"

train() { # LEVEL PROGRAM SOURCE...: instrument, link, run once
    local level=$1 program=$2
    shift 2
    $compiler "$level" -fpass-plugin="$PLUGIN" "$@" -Wl,--whole-archive "$RUNTIME" -Wl,--no-whole-archive -lpthread -o "$program"
    QUARL_PROFILE_FILE=$work/$program.quarlprof "./$program" >/dev/null
}

use() { # LEVEL PROFILE SOURCE: the IR built with the profile, warnings in SOURCE.err
    local name
    name=$(basename "${3%.*}")
    $compiler "$1" -fplugin="$PLUGIN" -fpass-plugin="$PLUGIN" -mllvm -quarl-profile-use="$2" \
        -S -emit-llvm "$3" -o "$name.ll" 2>"$name.err"
}

# The profile metadata of function NAME in IR file FILE, one line each:
# "entry COUNT" for the function, then its terminators' branch weights.
profile_of() { # NAME FILE
    awk -v name="$1" '
        function clean(s) { gsub(/!\{!"[a-z_]+", |i32 |i64 |\}/, "", s); return s }
        function prof(line) { match(line, /!prof ![0-9]+/); return md[substr(line, RSTART + 6, RLENGTH - 6)] }
        NR == FNR { if ($0 ~ /^![0-9]+ = /) { id = $1; sub(/^![0-9]+ = /, ""); md[id] = $0 }; next }
        $0 ~ "^define .*@" name "\\(" { inside = 1; if ($0 ~ /!prof/) print "entry " clean(prof($0)); next }
        inside && /^}/ { inside = 0 }
        inside && /!prof ![0-9]+/ { print clean(prof($0)) }' "$2" "$2"
}

expect_profile() { # NAME FILE EXPECTED-LINES
    local got
    got=$(profile_of "$1" "$2")
    [ "$got" = "$3" ] || fail "$1 in $2: expected
$3
got
$got"
}

case $case_name in
ratios)
    # Exact weights at -O0, where the IR keeps the branches as written.
    train -O0 prog "$here/branches.c"
    use -O0 prog.quarlprof "$here/branches.c"
    [ ! -s branches.err ] || fail "unexpected warnings: $(cat branches.err)"
    expect_profile mostly branches.ll $'entry 100\n99, 1'
    expect_profile halves branches.ll $'entry 100\n50, 50'
    expect_profile never branches.ll $'entry 100\n0, 100'
    # The ternary, then the switch: default, cases 0, 1, 2, 4 (sharing
    # case 2's block), 3.
    expect_profile dispatch branches.ll $'entry 100\n4, 96\n1, 1, 1, 96, 0, 1'
    expect_profile hinted branches.ll $'entry 100\n1, 99'
    expect_profile shared branches.ll $'entry 100\n60, 10, 10, 10, 10'
    expect_profile unused branches.ll 'entry 0'
    attrs=$(grep -E '^define .*@unused\(' branches.ll | grep -o '#[0-9]*')
    grep -E "^attributes $attrs = \{.* cold" branches.ll >/dev/null || fail "unused is not marked cold"
    # The summary covers every function's entry count and counters, as
    # LLVM's own does.
    total=$("$QUARL" profile show --edges prog.quarlprof |
        awk '/^function/ { sum += $4 } / counter [0-9]+$/ { sum += $5 } END { print sum }')
    grep -q "!{!\"TotalCount\", i64 $total}" branches.ll || fail "summary: total count is not $total"
    grep -q '!{!"MaxFunctionCount", i64 100}' branches.ll || fail "summary: max function count is not 100"
    # At -O2 every function's record fits and the noinline ones keep their
    # entry counts through the pipeline.
    train -O2 prog2 "$here/branches.c"
    use -O2 prog2.quarlprof "$here/branches.c"
    [ ! -s branches.err ] || fail "unexpected warnings at -O2: $(cat branches.err)"
    for f in mostly halves never dispatch hinted shared; do
        [ "$(profile_of $f branches.ll | head -1)" = "entry 100" ] || fail "-O2: $f entry count"
    done
    # The measured weights outlast the optimiser, __builtin_expect's too.
    profile_of hinted branches.ll | grep -qxE '1, 99|99, 1' ||
        fail "-O2: hinted lost its weights: $(profile_of hinted branches.ll)"
    ;;
edited)
    # A profile of the old source: the changed function gets a warning and
    # no profile, the others theirs.
    cp "$here/branches.c" .
    train -O0 prog branches.c
    sed -i 's/^        sink += 2;$/{ if (i > 50) sink += 7; sink += 2; }/' branches.c
    use -O0 prog.quarlprof branches.c
    grep -q "quarl: halves: the profile was made from other code" branches.err ||
        fail "no warning for halves: $(cat branches.err)"
    [ "$(grep -c warning: branches.err)" -eq 1 ] || fail "one warning expected: $(cat branches.err)"
    expect_profile halves branches.ll ''
    expect_profile mostly branches.ll $'entry 100\n99, 1'
    ;;
damaged)
    # A truncated, a foreign and a missing profile: a warning each, a normal
    # build without profile.
    train -O0 prog "$here/branches.c"
    head -c 200 prog.quarlprof >cut.quarlprof
    for profile in cut.quarlprof:truncated "$here/branches.c:not a Quarl profile" \
        "missing.quarlprof:cannot open"; do
        reason=${profile##*:}
        profile=${profile%:*}
        use -O2 "$profile" "$here/branches.c" || fail "$profile stopped the compiler"
        grep -q "warning: $profile: quarl: $reason.*; compiling without profile" branches.err ||
            fail "$profile: no warning: $(cat branches.err)"
        ! grep -qE 'function_entry_count|ProfileSummary' branches.ll ||
            fail "$profile: profile metadata from a bad profile"
    done
    ;;
units)
    # Static functions of the same name in three files: each file's
    # functions get the entry counts of their own records, named through
    # QUARL_PROFILE_USE.
    sources=("$here/unit_a.c" "$here/unit_b.c" "$here/units_main.c")
    train -O0 prog "${sources[@]}"
    "$QUARL" profile show --blocks prog.quarlprof | sed -n 's/^function \(.*\) entry \(.*\)/\1 \2/p' |
        sort >expected
    : >got
    for source in "${sources[@]}"; do
        QUARL_PROFILE_USE=$work/prog.quarlprof "$CLANG" -O0 -fpass-plugin="$PLUGIN" -S -emit-llvm \
            "$source" -o unit.ll 2>unit.err
        [ ! -s unit.err ] || fail "unexpected warnings: $(cat unit.err)"
        file=$(sed -n 's/^source_filename = "\(.*\)"$/\1/p' unit.ll)
        for f in $(sed -n 's/^define .*@\([A-Za-z_0-9]*\)(.*/\1/p' unit.ll); do
            key=$f
            grep -qE "^define internal .*@$f\(" unit.ll && key=$file:$f
            echo "$key $(profile_of "$f" unit.ll | sed -n 's/^entry //p')" >>got
        done
    done
    sort got | diff -u expected - >&2 || fail "entry counts differ from the profile's"
    [ "$(grep -c ':helper ' got)" -eq 3 ] || fail "three static helpers expected"
    ;;
values)
    # Callees and lengths from four threads: the profile holds each one's
    # exact count, profile use hands them to LLVM as value profiles, and at
    # -O2 LLVM promotes the hot callees and specialises the hot lengths.
    cp "$here/values.c" .
    export QUARL_ATOMIC_COUNTERS=1 # exact block counts from threads too
    train -O0 prog values.c
    expect_values() { # FUNCTION EXPECTED-LINES
        local got
        got=$("$QUARL" profile show --values --function "$1" prog.quarlprof)
        [ "$got" = "$2" ] || fail "values of $1: expected
$2
got
$got"
    }
    expect_values apply $'function apply entry 4000\n  site 0 call total 4000\n    values.c:add 3560\n    mul 400\n    values.c:sub 40'
    expect_values copy $'function copy entry 4000\n  site 0 length total 4000\n    8 2000\n    16 1000'
    expect_values same $'function same entry 4000\n  site 0 length total 4000\n    4 3992\n    0 8'
    expect_values clear $'function clear entry 4000\n  site 0 length total 4000\n    4 4000'
    expect_values rounds 'function values.c:rounds entry 4'
    # Value-profile metadata: kind, total, then value and count pairs, most
    # frequent first (callees by hashes of their names, shown as H here).
    use -O0 prog.quarlprof values.c
    [ ! -s values.err ] || fail "unexpected warnings: $(cat values.err)"
    got=$(grep -o '!{!"VP", .*}' values.ll | awk -F', ' '{
        for (i = 4; $2 == "i32 0" && i <= NF; i += 2) $i = "H"
        line = $1; for (i = 2; i <= NF; ++i) line = line ", " $i; print line }' | sort)
    expected='!{!"VP", i32 0, i64 4000, H, i64 3560, H, i64 400, H, i64 40}
!{!"VP", i32 1, i64 4000, i64 4, i64 3992, i64 0, i64 8}
!{!"VP", i32 1, i64 4000, i64 4, i64 4000}
!{!"VP", i32 1, i64 4000, i64 8, i64 2000, i64 16, i64 1000}'
    [ "$got" = "$expected" ] || fail "value profiles: expected
$expected
got
$got"
    # -O2: add and mul called directly behind a check of the callee (sub
    # is too rare; the pointer typed before LLVM 15, opaque after), copy specialised for 8 and 16 bytes, same for 4.
    train -O2 prog2 values.c
    use -O2 prog2.quarlprof values.c
    [ ! -s values.err ] || fail "unexpected warnings at -O2: $(cat values.err)"
    body() { awk -v name="$1" '$0 ~ "^define .*@" name "\\(" { inside = 1 } inside { print } inside && /^}/ { exit }' values.ll; }
    for callee in add mul; do
        body apply | grep -qE "icmp eq (i32 \(i32, i32\)\*|ptr) %[0-9]+, @$callee\b" || fail "-O2: apply does not check for $callee"
    done
    ! body apply | grep -q '@sub' || fail "-O2: the rare callee sub was promoted"
    for length in 8 16; do
        body copy | grep -qE "^ +i64 $length, label" || fail "-O2: copy is not specialised for $length bytes"
    done
    # LLVM 22's pass leaves memcmp and bcmp as they are, with its own
    # profiles too.
    if [ "$($compiler -dumpversion | cut -d. -f1)" -lt 22 ]; then
        body same | grep -qE '(memcmp|bcmp)\(.*, i64 4\)' || fail "-O2: same is not specialised for 4 bytes"
    fi
    # An edit that leaves the graph but not the value sites: one warning,
    # the function keeps its counts.
    sed -i 's/memset(to, 0, n);/memset(to, 0, 8);/' values.c
    use -O0 prog.quarlprof values.c
    grep -q "quarl: clear: the profile's value sites differ from the code" values.err ||
        fail "no warning for clear: $(cat values.err)"
    [ "$(grep -c warning: values.err)" -eq 1 ] || fail "one warning expected: $(cat values.err)"
    [ "$(profile_of clear values.ll | head -1)" = "entry 4000" ] || fail "clear lost its entry count"
    ;;
cxx)
    # Templates and inline functions are emitted by both units and kept
    # once by the linker: one record each, which fits both units' copies.
    sources=("$here/cxx_main.cpp" "$here/cxx_shapes.cpp")
    for level in -O0 -O2; do
        train $level prog "${sources[@]}"
        for source in "${sources[@]}"; do
            use $level prog.quarlprof "$source"
            name=$(basename "${source%.*}")
            [ ! -s "$name.err" ] || fail "unexpected warnings at $level: $(cat "$name.err")"
        done
        key=_Z14count_at_leastISt6vectorIlSaIlEEEiRKT_NS3_10value_typeE
        "$QUARL" profile show --blocks prog.quarlprof >blocks
        [ $level = -O2 ] || grep -qx "function $key entry 2" blocks ||
            fail "count_at_least<vector<long>>: one record, called once from each unit"
        expect_profile "$key" cxx_main.ll "$(profile_of "$key" cxx_shapes.ll)"
        rm prog.quarlprof
    done
    # -O2: the virtual call's two targets are called directly behind a check.
    for target in Square Rectangle; do
        grep -qE "icmp eq .*@_ZNK12_GLOBAL__N_1[0-9]+${target}4areaEv" cxx_shapes.ll ||
            fail "-O2: the call of area() is not promoted to $target::area"
    done
    ;;
races)
    # Plain counters that two threads race on lose increments. Whatever the
    # counters say, no count comes out below zero (near 2^64 unsigned), the
    # table says which functions were repaired, and profile use keeps the
    # summary's counts real.
    no_wrapped_counts() { # PROFILE
        for form in --blocks --edges; do
            "$QUARL" profile show $form "$1" >counts
            ! grep -qE '[0-9]{19}' counts || fail "a count wrapped below zero: $(grep -E '[0-9]{19}' counts | head -3)"
        done
    }
    train -O2 prog "$here/races.c" "$here/races_step.c"
    no_wrapped_counts prog.quarlprof
    # Lost increments made certain: the counter on spin's entry edge is set
    # to zero in the file, so the function leaves more often than it enters.
    train -O0 prog0 "$here/races.c" "$here/races_step.c"
    "$QUARL" profile show --edges --function spin prog0.quarlprof >edges
    counter=$(sed -n 's/^  edge 2 -> [0-9]* [0-9]* counter \([0-9]*\).*/\1/p' edges)
    [ -n "$counter" ] || fail "spin's entry edge carries no counter: $(cat edges)"
    python3 - prog0.quarlprof "$counter" <<'PATCH'
import struct, sys
path, wanted = sys.argv[1], int(sys.argv[2])
data = bytearray(open(path, 'rb').read())
at, count = 16, struct.unpack_from('<I', data, 12)[0]
for _ in range(count):
    key_bytes = struct.unpack_from('<I', data, at)[0]
    key = data[at + 4:at + 4 + key_bytes].decode()
    at += 4 + key_bytes + (4 - key_bytes % 4) % 4 + 8 + 4
    blocks, nodes, words, counters = struct.unpack_from('<IIII', data, at)
    at += 16 + 4 * words
    if key.endswith(':spin'):
        struct.pack_into('<Q', data, at + 8 * wanted, 0)
    at += 8 * counters
    sites = struct.unpack_from('<I', data, at)[0]
    at += 4
    for _ in range(sites):
        values = struct.unpack_from('<I', data, at + 4)[0]
        at += 16 + 16 * values
open(path, 'wb').write(data)
PATCH
    no_wrapped_counts prog0.quarlprof
    "$QUARL" profile show prog0.quarlprof >table
    grep -qE 'races.c:spin \(repaired\)$' table || fail "spin not marked repaired: $(cat table)"
    grep -q 'functions marked (repaired)' table || fail "no note on repaired functions"
    "$QUARL" profile show --blocks --function spin prog0.quarlprof | grep -qE '^  repaired: [1-9][0-9]* edge counts' ||
        fail "--blocks does not say spin was repaired"
    use -O0 prog0.quarlprof "$here/races.c"
    [ ! -s races.err ] || fail "unexpected warnings: $(cat races.err)"
    max=$(sed -n 's/.*!{!"MaxCount", i64 \([0-9]*\)}.*/\1/p' races.ll)
    [ -n "$max" ] && [ ${#max} -lt 19 ] || fail "summary's maximum count is not a real count: '$max'"
    ;;
*) echo "unknown case $case_name" >&2; exit 2 ;;
esac
echo "$case_name: profile use agrees"
