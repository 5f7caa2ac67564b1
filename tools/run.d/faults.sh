# The parts of './run verify' that kill processes, and the long run of many.

KILL_PRESETS="i386 amd64"
SOAK_CALLS=1000000
# Of each width, shared by the parts that tests/differential/CMakeLists.txt declares.
DIFFERENTIAL_SCRIPTS=10000
DIFFERENTIAL_PARTS=4

build_fault_tests() {
    need_packages $BUILD_PACKAGES
    for preset in $KILL_PRESETS; do
        need_preset $preset
        build_quietly $preset || die "the tests of $preset do not build: see $LOG"
    done
}

# What the tests have counted, a line for each thing: COUNT WHAT. Of "client killed in arm_start,
# ...: 30 times (...)" the calls are added up.
counts_in() { # LOG
    sed -n -e 's/^[0-9]*: counted: \(.*\): \([0-9]*\)$/\2 \1/p' \
        -e 's/^[0-9]*: \([a-z ]*\)\( in [A-Za-z_]*\)\{0,1\}\([a-z, ]*\): \([0-9]*\) times (.*/\4 \1\3/p' "$1" |
        awk '{ n = $1; $1 = ""; sum[$0] += n } END { for (what in sum) print sum[what] what }'
}

# The counts of the 32-bit and the 64-bit tests, as docs/reliability.md quotes them.
print_counts() { # NAME
    for preset in $KILL_PRESETS; do
        counts_in "build/logs/$1-$preset.log" | sed "s/^/$preset /"
    done | awk '{ width = $1; n = $2; $1 = $2 = ""; count[width, $0] = n; seen[$0] = 1 }
        END { for (what in seen) printf "%8d + %-8d%s\n", count["i386", what], count["amd64", what], what }' |
        sort -k 4
}

# Both widths of some tests, what they have counted, and how they have ended.
count_tests() { # NAME REGEX
    bad=0
    for preset in $KILL_PRESETS; do
        ctest --test-dir "build/$preset" -R "$2" -j $((JOBS * 2)) -V --no-tests=error \
            >"build/logs/$1-$preset.log" 2>&1 || bad=1
    done
    print_counts "$1"
    for preset in $KILL_PRESETS; do
        grep -E '(Failed|Timeout)\)|% tests passed' "build/logs/$1-$preset.log" | sed "s/^/$preset: /"
    done
    return $bad
}

# Every moment of every call is tried; './run test' tries one in fifteen. With them go what happens
# to those that wait, or are between two steps, when an engine dies, and a writer at each of its
# instructions.
verify_kills() {
    build_fault_tests
    ARM_KILL_EVERY=1 count_tests kills \
        '^test_(kill_|ipc_killed_writer\.)|^test_ipc_connection\..*BetweenPost|^test_proc\..*(Blocked|SeeingTheDead)'
}

# The scripts of './run test' and many more.
verify_differential() {
    build_fault_tests
    ARM_DIFFERENTIAL_SCRIPTS=$((DIFFERENTIAL_SCRIPTS / DIFFERENTIAL_PARTS)) \
        count_tests differential '^differential\.ScriptsAreLikeTheContract'
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

# More random rounds, moments, children, signals and loads than in './run test'.
verify_faults() {
    build_fault_tests
    ARM_HOSTILE_ROUNDS=1500 ARM_FORKS=150 ARM_LOAD_ROUNDS=1000 ARM_SIGNALS=20000 ARM_KILL_EVERY=1 ARM_FORK_EVERY=5 \
        ARM_JOIN_EVERY=1 count_tests faults '^test_(hostile|hostile_moments|fork|fork_handlers|fork_signal|environment|load|signals|stack|limits)\.|^unit_join\.|^unit_diag\.TraceFileLimit'
    status=$?
    for preset in $KILL_PRESETS; do
        echo "bytes of stack, $preset:"
        sed -n 's/^[0-9]*: \(| .*|\)$/\1/p' "build/logs/faults-$preset.log"
    done
    return $status
}
