#!/bin/sh
# Proves that nsrun isolates. Usage: nsrun_test.sh NSRUN CASE

nsrun=$1
me=$$
scratch=$(mktemp -d /tmp/nsrun-test-XXXXXX) || exit 1
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

expect() { # WHAT EXPECTED ACTUAL
    [ "$2" = "$3" ] || fail "$1: expected '$2', got '$3'"
}

await_lines() { # COUNT FILE
    rounds=0
    until [ "$(wc -l <"$2")" -ge "$1" ]; do
        rounds=$((rounds + 1))
        [ $rounds -lt 400 ] || fail "the command did not start"
        sleep 0.05
    done
}

# What runs beside the command sees its files, and other IPC objects.
AnotherIpcNamespaceIsBesideTheCommand() {
    "$nsrun" --beside 'readlink /proc/self/ns/ipc >/tmp/its; mv /tmp/its /tmp/theirs' -- sh -c '
        until [ -e /tmp/theirs ]; do sleep 0.05; done
        readlink /proc/self/ns/ipc; cat /tmp/theirs' >"$scratch/both"
    expect "lines" 2 "$(wc -l <"$scratch/both")"
    expect "different namespaces" 2 "$(sort -u "$scratch/both" | wc -l)"
}

# Two runs that live at the same time share no namespace, so neither has the machine's.
EveryNamespaceIsFresh() {
    show='for space in ipc mnt pid; do readlink /proc/self/ns/$space; done'
    mkfifo "$scratch/end"
    "$nsrun" -- sh -c "$show; read line" <"$scratch/end" >"$scratch/first" &
    exec 3>"$scratch/end"
    await_lines 3 "$scratch/first"
    "$nsrun" -- sh -c "$show" >"$scratch/second"
    exec 3>&-
    wait
    expect "namespaces of the second run" 3 "$(wc -l <"$scratch/second")"
    expect "shared namespaces" "" "$(sort "$scratch/first" "$scratch/second" | uniq -d)"
}

IpcObjectsOfOneRunAreUnknownToTheNext() {
    make='ipcmk -Q && ipcmk -S 1 && ipcmk -M 64'
    expect "objects made" 3 "$("$nsrun" -- sh -c "($make) >/dev/null; ipcs" | grep -c '^0x')"
    expect "objects seen later" 0 "$("$nsrun" -- ipcs | grep -c '^0x')"
}

PrivateDirectoriesAreEmptyAndWritable() {
    for dir in /tmp /var/tmp /var/kelp /var/orv/kestra/common/QDN/logs /etc/orv/kestra/common/cfg; do
        expect "content of $dir" "" "$("$nsrun" -- ls -A $dir)"
        "$nsrun" -- touch $dir/probe || fail "$dir is not writable"
    done
}

NothingReachesTheMachine() {
    files="/tmp/probe-$me /var/kelp/probe-$me /var/probe-$me /etc/orv/probe-$me /etc/probe-$me"
    # shellcheck disable=SC2086
    "$nsrun" -- touch $files || fail "nsrun failed"
    for file in $files; do
        [ ! -e "$file" ] || fail "$file was made on the machine"
    done
    ! "$nsrun" -- touch "/etc/alternatives/probe-$me" 2>/dev/null || fail "/etc/alternatives was written"
}

UserKeepsNameAndNumber() {
    expect "user" "$(id -u) $(id -un)" "$("$nsrun" -- sh -c 'echo $(id -u) $(id -un)')"
}

NoPrivilegesAreLeft() {
    expect "effective capabilities" 0000000000000000 \
        "$("$nsrun" -- sed -n 's/^CapEff:[[:space:]]*//p' /proc/self/status)"
}

ExitStatusIsTheCommands() {
    "$nsrun" -- sh -c 'exit 7'
    expect "exit code" 7 $?
    "$nsrun" -- sh -c 'kill -TERM $$'
    expect "code after a signal" 143 $?
    "$nsrun" -- /no/such/program 2>/dev/null
    expect "code of a missing program" 127 $?
}

LeftProcessesAreKilled() {
    # The substitution ends only when nobody holds its pipe any more.
    expect "output" "done" "$("$nsrun" -- sh -c 'sleep 1000 & echo done')"
}

LeftIpcObjectsAreReported() {
    "$nsrun" --check-ipc -- sh -c 'ipcmk -Q' >/dev/null 2>&1
    expect "with a message queue" 124 $?
    "$nsrun" --check-ipc -- sh -c 'ipcmk -S 1' >/dev/null 2>&1
    expect "with a semaphore set" 124 $?
    "$nsrun" --check-ipc -- sh -c 'ipcmk -M 64' >/dev/null 2>&1
    expect "with a segment" 124 $?
    "$nsrun" --check-ipc -- true
    expect "with nothing" 0 $?
}

SignalsArePassedOn() {
    # The trap ends the wait; nothing depends on the length of the sleep.
    "$nsrun" -- sh -c 'trap "exit 5" TERM; echo ready; sleep 1000 & wait' >"$scratch/log" &
    child=$!
    await_lines 1 "$scratch/log"
    kill -TERM $child
    wait $child
    expect "code after SIGTERM" 5 $?
}

KeptDirectoryBelowTmpStaysVisible() {
    echo text >"$scratch/file"
    expect "content of a kept file" text "$("$nsrun" --keep "$scratch" -- cat "$scratch/file")"
    "$nsrun" -- cat "$scratch/file" 2>/dev/null
    expect "code for a file that is not kept" 1 $?
}

AddressRandomisationCanBeSwitchedOff() {
    expect "personality" 00040000 "$("$nsrun" --no-aslr -- cat /proc/self/personality)"
}

case $2 in
EveryNamespaceIsFresh | AnotherIpcNamespaceIsBesideTheCommand | IpcObjectsOfOneRunAreUnknownToTheNext | \
    PrivateDirectoriesAreEmptyAndWritable | NothingReachesTheMachine | UserKeepsNameAndNumber | \
    NoPrivilegesAreLeft | ExitStatusIsTheCommands | LeftProcessesAreKilled | \
    LeftIpcObjectsAreReported | SignalsArePassedOn | KeptDirectoryBelowTmpStaysVisible | \
    AddressRandomisationCanBeSwitchedOff) "$2" ;;
*) fail "unknown case $2" ;;
esac
