# Configuring and building the presets.

TEST_PRESETS="i386 amd64 i386-asan amd64-asan amd64-tsan"
CLANG_PRESETS="i386-clang amd64-clang"
ALL_PRESETS="$TEST_PRESETS $CLANG_PRESETS"

# What a preset needs beyond BUILD_PACKAGES.
need_preset() { # PRESET
    case " $ALL_PRESETS " in
    *" $1 "*) ;;
    *) die "there is no preset '$1', only: $ALL_PRESETS" ;;
    esac
    case $1 in
    *-clang) need_packages $CLANG_PACKAGES ;;
    *-asan | *-tsan) need_packages $CLANG_PACKAGES $SANITIZER_PACKAGES ;;
    esac
    case $1 in i386*) need_sysroot ;; esac
}

configure_preset() { # PRESET
    [ -e "build/$1/build.ninja" ] || cmake --preset "$1"
}

configure_quietly() { # PRESET
    configure_preset "$1" >"build/logs/build-$1.log" 2>&1 && return 0
    echo "run: $1 cannot be configured: see build/logs/build-$1.log" >&2
    return 1
}

build_preset() { # PRESET [TARGET...]
    configure_preset "$1" || return
    preset=$1
    shift
    cmake --build "build/$preset" -j "$JOBS" ${1:+--target} "$@"
}

# A line each time another fifth is done, of ninja's steps, "[N/ALL] ...", or as make says it,
# "[ N%] ...".
tell_progress() { # WHAT
    told=0
    while IFS= read -r line; do
        case $line in
        '['*%']'*) done=${line%%%*} done=${done#[} ;;
        '['[0-9]*/*']'*) done=${line%%]*} done=${done#[} done=$((${done%/*} * 100 / ${done#*/})) ;;
        *) continue ;;
        esac
        [ $((done / 20)) -gt $told ] || continue
        told=$((done / 20))
        echo "run: $1: $((told * 20)) %"
    done
}

# Tells how far the steps of a build are; everything goes to the end of LOG.
telling() { # WHAT COMMAND...
    what=$1
    shift
    rm -f "$LOG.failed"
    { "$@" 2>&1 || : >"$LOG.failed"; } | tee -a "$LOG" | tell_progress "$what"
    [ ! -e "$LOG.failed" ]
}

show_errors() { # LOG
    grep -E 'error|Error|FAILED|warning:' "$1" | head -n 40 >&2
}

# As build_quietly, and tells how far it is.
build_telling() { # PRESET [TARGET...]
    echo "run: building $1"
    mkdir -p build/logs
    LOG=build/logs/build-$1.log
    : >"$LOG"
    telling "$1" build_preset "$@" && return 0
    show_errors "$LOG"
    return 1
}

# Only a failure is shown; LOG names the file with everything.
build_quietly() { # PRESET [TARGET...]
    mkdir -p build/logs
    LOG=build/logs/build-$1.log
    build_preset "$@" >"$LOG" 2>&1 && return 0
    show_errors "$LOG"
    return 1
}
