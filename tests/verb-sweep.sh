#!/usr/bin/env bash
# Kills the command at each call that changes documents, for each verb, and lets each of these calls
# fail, and checks that the verb was done whole or not at all and that the next start leaves nothing
# behind: tests/verb-sweep.sh BUILD-FOLDER [FAULT...].
set -euo pipefail
. "$(dirname "$0")/support/sweep.sh"
[ ${#faults[@]} -gt 0 ] || faults=(KILL ENOSPC EIO EDQUOT EROFS)

# Every path with its mode, content or target, and metadata; but for an empty trash.
tree() {
    (
        cd "$storage"
        find . -mindepth 1 ! -path ./.Trash -printf '%p %M %l\n'
        find . -type f -exec md5sum {} +
        getfattr -Rhd -m 'user\.(tag|com\.quenby\.(lastused|metadata|favorite))' .
        getfattr -Rh -m 'user\.com\.quenby\.trash' .
    ) | sort
}
prepare() {
    rm -rf "$storage" "$state"
    cp -a "$top/storage" "$storage"
    cp -a "$top/state" "$state"
}

storage=$top/storage
state=$top/state
mkdir -p "$storage/in/folder/deep" "$storage/to" "$storage/.Trash" "$top/source/a"
echo document > "$storage/in/doc"
echo below > "$storage/in/folder/deep/file"
setfattr -n user.tag -v red "$storage/in/folder"
echo old > "$storage/.Trash/old"
for name in 1 a/2; do head -c 5000 /dev/urandom > "$top/source/$name"; done
ln -s nowhere "$top/source/link"
setfattr -n user.tag -v red "$top/source/1"
tidewell tree root > /dev/null

# Whether the first tree has anything that is in none of the others.
has_more() { # TREE OTHER...
    local trees=("${@/#/$work/}")
    [ -n "$(sort -u "${trees[@]:1}" | comm -13 - <(sort -u "${trees[0]}"))" ]
}

check() { # VERB WHAT
    local expected=absent
    tidewell ls > /dev/null
    tree > "$work/found"
    cmp -s "$work/done" "$work/found" && expected=done
    # A deletion that fails in the middle puts back what is left.
    if [ "$1" = rm ] && [ "$status" -eq 1 ] && ! has_more found absent; then
        expected=found
    fi
    # A move that has to copy leaves a whole one at either place, or at both.
    if [ -n "${FAULT_APART-}" ] && [ "$status" -ne 0 ] && ! has_more found absent done &&
        { ! has_more absent found || ! has_more done found; }; then
        expected=found
    fi
    # What tells that it was done has to be true (but a document is used where that cannot be
    # written, too), and nothing may be left of it.
    if { [ "$status" -eq 0 ] && [ "$expected" = absent ] && [ "$1" != used ]; } ||
        ! cmp -s "$work/$expected" "$work/found" ||
        [ -n "$(find "$state"/state/storages/*/unfinished -mindepth 1)" ]; then
        echo "$2 (exit code $status), $expected but for:"
        diff "$work/$expected" "$work/found" || true
        cat "$work/trace" "$work/error"
        find "$state"/state/storages/*/unfinished
        exit 1
    fi
    [ "$expected" = absent ] || prepare
}

sweep() { # FAULT VERB...; paths are below the storage but for those that begin with a slash
    local fault=$1 total=0 status
    shift
    local work=$top/$fault-$1${FAULT_APART:+-apart}
    storage=$work/storage
    state=$work/state
    mkdir "$work"
    local words=("${@/#.\//$storage/}")
    prepare
    tree > "$work/absent"
    tidewell "${words[@]}" > /dev/null
    tree > "$work/done"
    prepare
    while faulty "$fault" "$((total + 1))" "$storage:$state/state/storages/*/unfinished" "${words[@]}"; do
        total=$((total + 1))
        check "$1" "$* with $fault at call $total"
    done
    echo "$fault $1${FAULT_APART:+ apart}: $total calls"
    [ "$total" -gt 0 ]
}
for fault in "${faults[@]}"; do
    beside sweep "$fault" import "$top/source" --to ./to
    beside sweep "$fault" rm ./in/folder
    beside sweep "$fault" mkdir new --in ./to
    beside sweep "$fault" rename ./in/doc renamed
    beside sweep "$fault" mv ./in/folder --to ./to
    FAULT_APART=1 beside sweep "$fault" mv ./in/folder --to ./to
    beside sweep "$fault" trash ./in/doc
    FAULT_APART=1 beside sweep "$fault" trash ./in/doc
    beside sweep "$fault" untrash ./.Trash/old --to ./in
    beside sweep "$fault" tag ./in/doc red
    beside sweep "$fault" favorite ./in/doc 7
    beside sweep "$fault" used ./in/doc 2026-01-31T10:15:00Z
done 2> "$top/noise" # the shell reports each kill
finish
