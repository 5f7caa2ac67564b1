# './run test': builds, test runs and source checks, added up in one closing line.

PASSED=0
FAILED=0
CASES=0

seconds() {
    date +%s
}

check() { # WHAT COMMAND...
    what=$1
    shift
    echo "== $what"
    began=$(seconds)
    if "$@"; then
        PASSED=$((PASSED + 1))
    else
        FAILED=$((FAILED + 1))
        echo "run: FAILED: $what" >&2
    fi
    echo "took $(($(seconds) - began)) s"
}

# Adds up a report of CTest. Whatever did not run to a good end, skipped or not run, has failed.
count_report() { # REPORT
    total=$(grep -c '<testcase ' "$1")
    good=$(grep -c '<testcase .*status="run"' "$1")
    CASES=$((CASES + total))
    PASSED=$((PASSED + good))
    FAILED=$((FAILED + total - good))
}

# The folders of tests/ whose tests are built and run in a tree; no tree finds only what another one
# finds as well.  What a sanitizer watches is not repeated without it in 64 bits, where the 32-bit
# tree runs it too; engine and programs are the same sources in both widths, and programs are killed
# at each of their moments in 32 bits.  'verify' runs everything everywhere.
QUICK_AREAS="support unit concurrent ipc calls proc"
areas_of() { # PRESET
    shipped="abi counts differential mixed reliability"
    case $1 in
    i386) echo "$QUICK_AREAS $shipped moments" ;;
    amd64) echo "support $shipped installed bindings armengine contract page programs" ;;
    amd64-asan) echo "support unit concurrent ipc calls engine threads text" ;;
    amd64-tsan) echo "concurrent proc threads" ;;
    esac
}

build_areas() { # PRESET AREA...
    preset=$1
    shift
    targets=
    for area; do
        targets="$targets tests_$area"
    done
    build_quietly "$preset" $targets
}

run_areas() { # PRESET AREAS [CTEST-ARGUMENT...]
    preset=$1
    labels="^($(echo $2 | tr ' ' '|'))\$"
    shift 2
    run_ctest "$preset" -L "$labels" "$@"
}

run_ctest() { # PRESET [CTEST-ARGUMENT...]
    preset=$1
    report=$ROOT/build/logs/ctest-$preset.xml
    shift
    rm -f "$report"
    echo "== tests of $preset"
    ctest --test-dir "build/$preset" -j $((JOBS * 2)) --output-on-failure --no-label-summary \
        --output-junit "$report" "$@" </dev/null 2>&1 |
        grep -v -E '^ +Start +[0-9]+: | Passed +[0-9.]+ sec$|^Internal ctest|^$'
    if [ -s "$report" ]; then
        count_report "$report"
    else
        FAILED=$((FAILED + 1))
    fi
}

sources() { # DIR... : the C and C++ files below the directories that exist
    for dir; do
        [ ! -d "$dir" ] || find "$dir" -name '*.cpp' -o -name '*.hpp' -o -name '*.h' -o -name '*.c'
    done
}

format_check() {
    sources include src shared engine programs examples tests bench fuzz | xargs clang-format --dry-run -Werror
}

# clang's warnings are errors of the lint as well, so the 64-bit tree is only configured.
lint() {
    configure_quietly amd64-clang || return 1
    python3 -B tools/checksources.py build/amd64-clang tidy src
    library=$?
    python3 -B tools/checksources.py build/amd64-clang together shared engine programs bench fuzz &&
        return $library
}

# Of the tests only the names are checked.
lint_names() {
    configure_quietly amd64 && python3 -B tools/checksources.py build/amd64 together tests/*/
}

# What clang's warnings say of the other width.
warnings_of_clang() {
    configure_quietly i386-clang &&
        python3 -B tools/checksources.py build/i386-clang syntax src shared engine programs
}

lint_python() {
    /usr/bin/python3 -m flake8 bench docs examples model python tests tools
}

# The engine's page: what it does by eslint, what it says and how it looks by the length of lines.
lint_page() {
    "$TOOLS/eslint/node_modules/.bin/eslint" --max-warnings 0 engine/page tests/page tests/engine \
        eslint.config.mjs || return 1
    ! LC_ALL=C.UTF-8 grep -nE '.{101}' engine/page/*.css engine/page/*.html
}

# Steps that fill what the tests leave of the processors: one after the other in the background,
# each with its output and its status in a file.
in_background() { # STEP...
    for step; do
        rm -f "build/logs/step-$step.status"
    done
    (
        for step; do
            began=$(seconds)
            background_step "$step" >"build/logs/step-$step.out" 2>&1
            status=$?
            echo "took $(($(seconds) - began)) s" >>"build/logs/step-$step.out"
            echo $status >"build/logs/step-$step.status"
        done
    ) &
    BACKGROUND=$!
}

background_step() { # STEP : lint, names, warnings, or a preset to be built
    case $1 in
    lint) lint ;;
    names) lint_names ;;
    warnings) warnings_of_clang ;;
    *) build_areas "$1" $(areas_of "$1") ;;
    esac
}

# What a step printed and how it ended, as soon as it has.
await() { # STEP
    until [ -e "build/logs/step-$1.status" ]; do
        kill -0 "$BACKGROUND" 2>/dev/null || [ -e "build/logs/step-$1.status" ] || return 1
        sleep 0.2
    done
    cat "build/logs/step-$1.out" >&2
    return "$(cat "build/logs/step-$1.status")"
}

closing_line() {
    if [ "$CASES" -eq 0 ]; then
        echo "run: no test ran" >&2
        FAILED=$((FAILED + 1))
    fi
    echo "$PASSED passed, $FAILED failed"
    [ "$FAILED" -eq 0 ]
}

# Of both widths, the given areas, or all.
test_widths() { # AREAS [CTEST-ARGUMENT...]
    areas=$1
    shift
    for preset in i386 amd64; do
        need_preset $preset
        check "build of $preset" build_areas $preset $areas
    done
    for preset in i386 amd64; do
        run_areas $preset "${areas:-.*}" "$@"
    done
}

# The trees of both widths are tested while the others are built.
test_all() {
    need_packages $CLANG_PACKAGES $LINT_PACKAGES $SANITIZER_PACKAGES $MODEL_PACKAGES
    need_eslint
    check "source format" format_check
    check "lint of the page" lint_page
    check "lint of Python" lint_python
    for preset in $TEST_PRESETS $CLANG_PRESETS; do
        need_preset "$preset"
    done
    for preset in i386 amd64; do
        check "build of $preset" build_areas $preset $(areas_of $preset)
    done
    in_background amd64-tsan amd64-asan warnings names lint
    for preset in i386 amd64; do
        run_areas $preset "$(areas_of $preset)"
    done
    for preset in amd64-tsan amd64-asan; do
        check "build of $preset" await "$preset"
        run_areas $preset "$(areas_of $preset)"
    done
    check "warnings of clang, 32-bit" await warnings
    check "lint" await lint
    check "names in the tests" await names
    check "protocol model, a short round" model_round
}

run_tests() { # [quick | REGEX]
    need_packages $BUILD_PACKAGES $CLANG_PACKAGES
    need_test_tools
    mkdir -p build/logs
    case ${1-} in
    '') test_all ;;
    quick) test_widths "$QUICK_AREAS" -LE slow ;;
    *) test_widths "" -R "$1" ;;
    esac
    closing_line
}
