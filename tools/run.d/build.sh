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
    case $1 in *-clang) need_packages $CLANG_PACKAGES ;; esac
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

# Only a failure is shown; LOG names the file with everything.
build_quietly() { # PRESET [TARGET...]
    mkdir -p build/logs
    LOG=build/logs/build-$1.log
    build_preset "$@" >"$LOG" 2>&1 && return 0
    grep -E 'error|Error|FAILED|warning:' "$LOG" | head -n 40 >&2
    return 1
}
