#!/usr/bin/env bash
# Kills the command at each call that changes documents, for each verb, and lets each of these calls
# fail, and checks that the verb was done whole or not at all and that the next start leaves nothing
# behind: tests/verb-sweep.sh BUILD-FOLDER [FAULT...]. Needs strace; skipped (77) where it may not
# trace.
set -euo pipefail
build=$(cd "$1" && pwd)
shift
faults=("$@")
[ ${#faults[@]} -gt 0 ] || faults=(signal=KILL error=ENOSPC)
strace -o /dev/null true 2> /dev/null || { echo "skipped: strace may not trace"; exit 77; }
work=$(mktemp -d "$build/verb-sweep-XXXXXX")
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=detect_leaks=0
# The store's own calls are for kill-sweep.sh.
calls=(renameat2 mkdirat unlinkat symlink symlinkat copy_file_range ftruncate fchmod utimensat
    fsetxattr fremovexattr fsync unlink)

run() { "$build/cli/tidewell" --storage "$work/storage" --state "$work/state" --json "$@"; }
# Every path with its content or target, but for an empty trash.
tree() {
    (cd "$work/storage" && find . -mindepth 1 ! -path ./.Trash \
        \( -type f -printf '%p %m ' -exec md5sum {} \; -o -printf '%p %y %l\n' \)) | sed 's/  .*//' | sort
}
prepare() {
    rm -rf "$work/storage" "$work/state"
    cp -a "$work/storage.before" "$work/storage"
    cp -a "$work/state.before" "$work/state"
}

mkdir -p "$work/storage/in/folder/deep" "$work/storage/to" "$work/storage/.Trash" "$work/source/a"
echo document > "$work/storage/in/doc"
echo below > "$work/storage/in/folder/deep/file"
echo old > "$work/storage/.Trash/old"
for name in 1 a/2; do head -c 5000 /dev/urandom > "$work/source/$name"; done
ln -s nowhere "$work/source/link"
setfattr -n user.tag -v red "$work/source/1" 2> /dev/null || true
run tree root > /dev/null
mv "$work/storage" "$work/storage.before"
mv "$work/state" "$work/state.before"

check() { # STATUS VERB WHAT
    local status=$1 expected=absent
    run ls > /dev/null
    tree > "$work/found"
    cmp -s "$work/done" "$work/found" && expected=done
    # A deletion that fails in the middle puts back what is left.
    if [ "$2" = rm ] && [ "$status" -eq 1 ] && [ -z "$(comm -13 "$work/absent" "$work/found")" ]; then
        expected=found
    fi
    # What tells that it was done has to be true, and nothing may be left of it.
    if { [ "$status" -eq 0 ] && [ "$expected" = absent ]; } ||
        ! cmp -s "$work/$expected" "$work/found" ||
        [ -n "$(ls -A "$work/state/state/unfinished" 2> /dev/null)" ]; then
        echo "$3 (exit code $status), $expected but for:"
        diff "$work/$expected" "$work/found" || true
        tail -n 4 "$work/trace"
        cat "$work/error"
        ls "$work/state/state/unfinished"
        exit 1
    fi
}

sweep() { # FAULT VERB...
    local fault=$1 call at total=0 status
    shift
    prepare
    tree > "$work/absent"
    run "$@" > /dev/null
    tree > "$work/done"
    # The tracer counts each kind of call by itself, in each thread.
    for call in "${calls[@]}"; do
        for ((at = 1; at < 100; at++)); do
            prepare
            status=0
            strace -f -qq -o "$work/trace" -e trace="$call" -e inject="$call:$fault:when=$at" \
                "$build/cli/tidewell" --storage "$work/storage" --state "$work/state" --json "$@" \
                > "$work/output" 2> "$work/error" || status=$?
            grep -q INJECTED "$work/trace" || [ "$status" -eq 137 ] || break
            check "$status" "$1" "$* with $fault at $call $at"
            total=$((total + 1))
        done
    done
    echo "$fault $1: $total calls"
    [ "$total" -gt 2 ]
}
for fault in "${faults[@]}"; do
    sweep "$fault" mkdir new --in "$work/storage/to"
    sweep "$fault" import "$work/source" --to "$work/storage/to"
    sweep "$fault" rename "$work/storage/in/doc" renamed
    sweep "$fault" mv "$work/storage/in/folder" --to "$work/storage/to"
    sweep "$fault" trash "$work/storage/in/doc"
    sweep "$fault" untrash "$work/storage/.Trash/old" --to "$work/storage/in"
    sweep "$fault" rm "$work/storage/in/folder"
done 2> "$work/noise" # the shell reports each kill
