#!/bin/sh
# Measures a 32-bit and a 64-bit program at once, and shows what the engine saw.
#
#   demo.sh [DIRECTORY]     the tree to read, /usr/include by default
#
# ARM_BUILD_I386 and ARM_BUILD_AMD64 name the build trees. Uses the machine's queues: './run demo'
# gives it namespaces of its own.

set -u
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
"$ARM_BUILD_AMD64/bin/armengine" --report >"$work/engine" &
engine=$!
exec 3<"$work/engine"
read -r ready <&3 || die "the engine did not start"
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

echo "stopping the engine, which saw:"
echo
kill "$engine"
cat <&3
wait "$engine"
engine_status=$?
engine=
[ "$engine_status" -eq 0 ] || die "the engine failed"

echo
echo "without an engine the same program does its work all the same:"
"$ARM_BUILD_AMD64/bin/treewalk" "$directory" 2>&1
