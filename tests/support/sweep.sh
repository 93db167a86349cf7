#!/usr/bin/env bash
# Functions of the sweeps, which kill the command at each call that changes the disk, or let that
# call fail. Sourced with the arguments BUILD-FOLDER [FAULT...].
build=$(cd "$1" && pwd)
shift
faults=("$@")
top=$(mktemp -d "$build/sweep-XXXXXX")
trap 'rm -rf "$top"' EXIT
export ASAN_OPTIONS=detect_leaks=0:verify_asan_link_order=0
declare -A errnos=([KILL]='' [EIO]=5 [ENOSPC]=28 [EROFS]=30 [EDQUOT]=122)

tidewell() { "$build/cli/tidewell" --storage "$storage" --state "$state" --json "$@"; }

# faulty FAULT NUMBER FOLDERS WORDS...: the same, with the fault at the call of that number that
# changes something below the folders. Leaves the exit code in `status`, and $work/trace names the
# call; false where there are not so many calls.
faulty() {
    local error=${errnos[$1]} at=$2 below=$3
    shift 3
    status=0
    rm -f "$work/trace"
    FAULT_ERROR=$error FAULT_AT=$at FAULT_BELOW=$below FAULT_LOG=$work/trace \
        LD_PRELOAD=$build/tests/libfaulty-calls.so tidewell "$@" \
        > "$work/output" 2> "$work/error" || status=$?
    [ -e "$work/trace" ]
}

started=0
# Runs its arguments in the background, at most two at once.
beside() {
    while [ "$(jobs -rp | wc -l)" -ge 2 ]; do wait -n || true; done
    started=$((started + 1))
    {
        "$@"
        touch "$top/passed-$started"
    } &
}
# Fails unless all of them were done.
finish() {
    wait
    [ "$(find "$top" -maxdepth 1 -name 'passed-*' | wc -l)" -eq "$started" ]
}
