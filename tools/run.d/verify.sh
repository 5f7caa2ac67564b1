# './run fuzz' and './run verify': what hostile data and every interleaving may do.

FUZZ_PRESETS="amd64-fuzz i386-fuzz"
FUZZ_TARGETS="properties names conversion trace reply_reader request_writer racing calls"
FUZZ_SECONDS=30
VERIFY_FUZZ_SECONDS=20
# The properties that need the fewest states, some of which must fail.
MODEL_ROUND="overflow no-undo never-raised kept-segment overflow-unlocked"

# ---- fuzzers ------------------------------------------------------------------------------------

build_fuzzers() {
    need_packages $BUILD_PACKAGES $CLANG_PACKAGES $SANITIZER_PACKAGES
    need_sysroot
    for preset in $FUZZ_PRESETS; do
        build_quietly "$preset" fuzz && continue
        echo "run: the fuzzers of $preset do not build: see $LOG" >&2
        return 1
    done
}

# Inputs that reach something new are kept in the build tree, for the next run to start from.
run_fuzzer() { # PRESET TARGET FUZZER-ARGUMENT...
    preset=$1
    target=$2
    shift 2
    kept=$ROOT/build/$preset/corpus/$target
    mkdir -p "$kept" build/logs "build/$preset/findings"
    ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 \
        UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "build/$preset/bin/nsrun" --keep "$ROOT" --no-aslr -- "build/$preset/bin/fuzz_$target" \
        "$@" -max_len=4096 -len_control=0 -timeout=30 -print_final_stats=1 -verbosity=1 \
        -artifact_prefix="$ROOT/build/$preset/findings/$target-" \
        "$kept" "$ROOT/fuzz/corpus/$target" >"build/logs/fuzz-$preset-$target.log" 2>&1
}

executed() { # PRESET TARGET
    sed -n 's/^stat::number_of_executed_units: *//p' "build/logs/fuzz-$1-$2.log"
}

# One line: how many inputs were run, and what was found.
report_fuzzer() { # PRESET TARGET STATUS
    log=build/logs/fuzz-$1-$2.log
    runs=$(executed "$1" "$2")
    finding=none
    if [ "$3" -ne 0 ] || [ -z "$runs" ]; then
        finding=$(sed -n 's/^.*Test unit written to //p' "$log" | tail -n 1)
        finding="FOUND ${finding:-nothing that could be kept} (see $log)"
    fi
    printf '%-11s %-15s %10s inputs   findings: %s\n' "$1" "$2" "${runs:-0}" "$finding"
    [ "$finding" = none ]
}

fuzz_all_widths() { # TARGET FUZZER-ARGUMENT...
    name=$1
    bad=0
    for preset in $FUZZ_PRESETS; do
        (
            run_fuzzer "$preset" "$@"
            report_fuzzer "$preset" "$name" $?
        ) &
        eval "job_$(echo "$preset" | tr - _)=\$!"
    done
    for preset in $FUZZ_PRESETS; do
        eval "wait \"\$job_$(echo "$preset" | tr - _)\"" || bad=1
    done
    add_inputs "$name"
    return $bad
}

# The inputs of all widths together, as docs/reliability.md quotes them.
INPUTS=0
add_inputs() { # TARGET
    both=0
    for preset in $FUZZ_PRESETS; do
        runs=$(executed "$preset" "$1")
        both=$((both + ${runs:-0}))
    done
    INPUTS=$((INPUTS + both))
    printf '%-11s %-15s %10s inputs   in all: %s\n' both "$1" "$both" "$INPUTS"
}

fuzz() { # [SECONDS]
    seconds=${1:-$FUZZ_SECONDS}
    case $seconds in *[!0-9]* | 0*) die "fuzz takes a number of seconds" ;; esac
    build_fuzzers || return
    findings=0
    for target in $FUZZ_TARGETS; do
        fuzz_all_widths "$target" -max_total_time="$seconds" || findings=1
    done
    [ "$findings" -eq 0 ]
}

# ---- model --------------------------------------------------------------------------------------

verify_model() { # [NAME...]
    need_packages $BUILD_PACKAGES $MODEL_PACKAGES
    sh model/check.sh "$@"
}

model_round() {
    verify_model $MODEL_ROUND
}

# ---- all of it ----------------------------------------------------------------------------------

# Every test of every tree: './run test' leaves out what another tree finds as well.
verify_trees() {
    need_packages $BUILD_PACKAGES $CLANG_PACKAGES
    need_test_tools
    need_sysroot
    bad=0
    for preset in $TEST_PRESETS; do
        build_quietly "$preset" || die "the tests of $preset do not build: see $LOG"
    done
    for preset in $TEST_PRESETS; do
        ctest --test-dir "build/$preset" -j $((JOBS * 2)) --output-on-failure --no-label-summary \
            >"build/logs/whole-$preset.log" 2>&1 || bad=1
        grep -E '(Failed|Timeout)\)|% tests passed' "build/logs/whole-$preset.log" | sed "s/^/$preset: /"
    done
    return $bad
}

# What a part prints is also stored, for 'verify docs', if the part ends well.
stored() { # PART COMMAND...
    part=$1
    shift
    mkdir -p build/verify
    rm -f "build/verify/$part.txt" "build/verify/$part.good"
    { "$@" && : >"build/verify/$part.good"; } | tee "build/verify/$part.new"
    [ -e "build/verify/$part.good" ] || return 1
    rm "build/verify/$part.good"
    mv "build/verify/$part.new" "build/verify/$part.txt"
}

verify_docs() {
    python3 -B tools/counts.py build/verify docs/reliability.md README.md
}

verify() { # [docs]
    if [ "${1-}" = docs ]; then
        verify_docs
        return
    fi
    mkdir -p build/logs
    check "fuzzers, $VERIFY_FUZZ_SECONDS seconds each" stored fuzz fuzz "$VERIFY_FUZZ_SECONDS"
    check "protocol model" stored model verify_model
    check "random scripts, library and model" stored differential verify_differential
    check "killed clients and engines" stored kills verify_kills
    check "soak, $SOAK_CALLS calls" stored soak verify_soak
    check "hostile memory, forks, loading, signals, stacks, limits" stored faults verify_faults
    check "all tests of all trees" verify_trees
    echo "$PASSED passed, $FAILED failed"
    [ "$FAILED" -eq 0 ]
}
