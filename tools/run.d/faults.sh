# The parts of './run verify' that kill processes, and the long run of many.

KILL_PRESETS="i386 amd64"
SOAK_CALLS=1000000

build_fault_tests() {
    need_packages $BUILD_PACKAGES
    for preset in $KILL_PRESETS; do
        need_preset $preset
        build_quietly $preset || die "the tests of $preset do not build: see $LOG"
    done
}

# Adds up what the tests have printed, over the calls: "client killed in arm_start, ...: 30 times".
sum_kills() { # LOG
    sed -n 's/^[0-9]*: \([a-z ]*\)\( in [A-Za-z_]*\)\{0,1\}\([a-z, ]*\): \([0-9]*\) times (.*/\4 \1\3/p' "$1" |
        awk '{ n = $1; $1 = ""; sum[$0] += n } END { for (what in sum) printf "%6d %s\n", sum[what], what }' |
        sort -k 2
}

# Every moment of every call is tried; './run test' tries one in seven.
verify_kills() {
    build_fault_tests
    bad=0
    for preset in $KILL_PRESETS; do
        log=build/logs/kills-$preset.log
        ARM_KILL_EVERY=1 ctest --test-dir "build/$preset" -R '^test_kill_' -j $((JOBS * 2)) -V \
            --no-tests=error >"$log" 2>&1 || bad=1
        echo "$preset:"
        sum_kills "$log"
        grep '(Failed)$' "$log"
    done
    return $bad
}

verify_soak() {
    build_fault_tests
    log=build/logs/soak.log
    ARM_TEST_SECONDS=600 ARM_SOAK_CALLS=$SOAK_CALLS build/amd64/bin/nsrun --keep "$ROOT" --check-ipc -- \
        build/amd64/bin/test_soak >"$log" 2>&1
    status=$?
    grep '^soak: ' "$log"
    return $status
}

# More random rounds, children, signals and loads than in './run test'.
verify_faults() {
    build_fault_tests
    bad=0
    for preset in $KILL_PRESETS; do
        log=build/logs/faults-$preset.log
        ARM_HOSTILE_ROUNDS=1500 ARM_FORKS=150 ARM_LOAD_ROUNDS=1000 ARM_SIGNALS=20000 \
            ctest --test-dir "build/$preset" -R '^test_(hostile|fork|load|signals|stack|limits)\.' \
            -j $((JOBS * 2)) -V --no-tests=error >"$log" 2>&1 || bad=1
        echo "$preset:"
        sed -n 's/^[0-9]*: \(\(hostile\|fork\|load\|signals\|limits\): .*\)/\1/p' "$log" | sort
        grep -E '(Failed|Timeout)\)|tests passed' "$log"
    done
    return $bad
}
