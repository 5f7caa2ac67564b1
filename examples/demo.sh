#!/bin/sh
# Measures a 32-bit and a 64-bit program at once, and shows what the engine saw.
#
#   demo.sh [--keep] [DIRECTORY]     the tree to read, /usr/include by default
#
# With --keep the engine goes on until Ctrl-C, to be looked at. ARM_BUILD_I386 and ARM_BUILD_AMD64
# name the build trees, ARM_DEMO_TRACES the file for the traces, and ARM_DEMO_LISTEN where the
# engine serves its page, which only an engine with network outputs can. Uses the machine's queues:
# './run demo' gives it namespaces of its own.

set -u
keep=
if [ "${1-}" = --keep ]; then
    keep=yes
    shift
fi
directory=${1:-/usr/include}
work=$(mktemp -d) || exit 1
engine=

clean_up() {
    [ -z "$engine" ] || kill "$engine" 2>/dev/null
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

die() {
    echo "demo: $*" >&2
    exit 1
}

# The engine says when it is ready; its first line is waited for, the rest is kept for the end.
mkfifo "$work/engine" || exit 1
traces=${ARM_DEMO_TRACES:-$work/traces}
rm -f "$traces"
"$ARM_BUILD_AMD64/bin/armengine" --report --otlp-file "$traces" \
    ${ARM_DEMO_LISTEN:+--listen "$ARM_DEMO_LISTEN"} >"$work/engine" &
engine=$!
exec 3<"$work/engine"
read -r ready <&3 || die "the engine did not start"
url=
if [ -n "${ARM_DEMO_LISTEN-}" ]; then
    read -r listening <&3 || die "the engine does not listen"
    url=${listening#armengine: listening on }
fi
cat <&3 >"$work/report" &
reader=$!
exec 3<&-
echo "$ready"

echo "reading every file below $directory: a 32-bit and a 64-bit program at once, 2 workers each"
"$ARM_BUILD_I386/bin/treewalk" --workers 2 "$directory" >"$work/i386" &
narrow=$!
"$ARM_BUILD_AMD64/bin/treewalk" --workers 2 "$directory" >"$work/amd64"
wide_status=$?
wait "$narrow"
narrow_status=$?
cat "$work/i386" "$work/amd64"
[ "$narrow_status" -eq 0 ] && [ "$wide_status" -eq 0 ] || die "a program failed"

found() {
    sed 's/^[^:]*: //' "$1"
}
[ "$(found "$work/i386")" = "$(found "$work/amd64")" ] || die "the programs found different things"

# Traces are written a little later than programs are answered: waits until no more come.
await_traces() {
    looks=0
    before=
    while [ "$looks" -lt 50 ]; do
        size=$(wc -c <"$traces")
        [ "$size" -gt 0 ] && [ "$size" = "$before" ] && break
        before=$size
        looks=$((looks + 1))
        sleep 0.1
    done
}

# The trace that has ended last: that of a whole walk.
last_trace() {
    sed -n 's/.*"traceId":"\([0-9a-f]*\)".*/\1/p' "$traces" | tail -n 1
}

where_to_look() {
    if [ -n "$url" ]; then
        echo "  page     $url"
        echo "  a trace  ${url}#trace=$(last_trace)"
        echo "  metrics  ${url}metrics"
    fi
    echo "  traces   $traces"
}

# A signal ends a wait, not the engine.
await_engine() {
    while :; do
        wait "$engine"
        engine_status=$?
        [ "$engine_status" -gt 128 ] && kill -0 "$engine" 2>/dev/null || return
    done
}

if [ -n "$keep" ]; then
    await_traces
    # The key ends the engine and not the wait, which may begin after it has been pressed.
    trap 'echo; kill "$engine" 2>/dev/null' INT TERM
    echo
    echo "the engine stays until Ctrl-C; look at:"
    where_to_look
    await_engine
    # The report follows, however often the key is pressed.
    trap '' INT TERM
else
    kill "$engine" 2>/dev/null
    await_engine
fi
engine=

echo "stopping the engine, which saw:"
echo
wait "$reader"
cat "$work/report"
[ "$engine_status" -eq 0 ] || die "the engine failed"

echo
if [ -z "$keep" ]; then
    echo "it could be looked at while it served ('./run demo --keep' stays up for that):"
    where_to_look
    echo
fi
echo "without an engine the same program does its work all the same:"
"$ARM_BUILD_AMD64/bin/treewalk" "$directory" 2>&1
