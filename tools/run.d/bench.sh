# './run bench': what libarm costs, measured by bench/bench.py.

BENCH_PACKAGES="python3 libbenchmark-dev libsystemd-dev dbus-daemon liblttng-ust-dev lttng-tools
    prometheus-cpp-dev gnuplot-nox binutils util-linux"
BENCH_PRESETS="i386-bench amd64-bench"

# LTTng keeps its sockets in /run and its memory in /dev/shm, which must not be the machine's.
in_bench_namespaces() { # COMMAND...
    [ "$(id -u)" -eq 0 ] && users= || users="--user --map-root-user"
    unshare --mount $users -- sh -c '
        mount -t tmpfs -o mode=0755 none /run && mount -t tmpfs -o mode=1777 none /dev/shm &&
            exec "$@"' sh build/amd64-bench/bin/nsrun --keep "$ROOT" -- "$@"
}

bench() { # [TABLE... | docs]
    need_packages $BUILD_PACKAGES $BENCH_PACKAGES
    need_sysroot
    for preset in $BENCH_PRESETS; do
        build_quietly $preset bench || die "the benchmarks do not build for $preset: see $LOG"
    done
    mkdir -p build/bench
    if [ "${1-}" = docs ]; then
        python3 bench/bench.py docs
    else
        in_bench_namespaces env HOME=/tmp PYTHONDONTWRITEBYTECODE=1 python3 bench/bench.py "$@"
    fi
}
