#!/usr/bin/env bash
# Kills the command at each call that changes its store while it takes in a burst of changes, and
# checks that the next run tells all of them since the anchor from before: tests/kill-sweep.sh
# BUILD-FOLDER [FAULT...]. Then lets each of these calls fail with a full disk instead.
set -euo pipefail
. "$(dirname "$0")/support/sweep.sh"
[ ${#faults[@]} -gt 0 ] || faults=(KILL ENOSPC)
storage=$top/storage
state=$top/state

told() { # what the working set tells since the anchor: identifiers of documents that were known, and paths
    tidewell changes working-set --since "$anchor" | grep -v '"anchor"' |
        sed -E 's/.*"(delete)":"([^"]*)".*/\1 \2/; s/.*"path":"([^"]*)".*/update \1/' | sort
}

mkdir -p "$storage/a/b" "$storage/c"
for i in {1..10}; do echo "$i" > "$storage/a/f$i"; echo "$i" > "$storage/c/g$i"; done
tidewell tree root > /dev/null
anchor=$(tidewell anchor working-set | sed -E 's/.*"anchor":"([^"]*)".*/\1/')
for i in {1..5}; do
    mv "$storage/a/f$i" "$storage/c/f$i"            # moved
    rm "$storage/c/g$i"                             # deleted
    echo more >> "$storage/a/f$((i + 5))"           # edited
    echo new > "$storage/a/b/n$i"                   # made
    echo saved > "$storage/c/t"; mv "$storage/c/t" "$storage/c/g$((i + 5))"
done
mv "$storage/a/b" "$storage/b"
cp -a "$state" "$top/before"
# The witness that lies with the documents belongs to that state.
getfattr -d -m witness --absolute-names "$storage" > "$top/witness"
told > "$top/expected"
[ "$(grep -c update "$top/expected")" -ge 25 ] && [ "$(grep -c delete "$top/expected")" -eq 5 ] # and no more

sweep() { # FAULT
    local total=0
    local work=$top/$1
    state=$work/state
    mkdir "$work"
    while cp -a "$top/before" "$state" && setfattr --restore="$top/witness" && faulty "$1" "$((total + 1))" "$state" sync; do
        total=$((total + 1))
        if ! told > "$work/found" || ! cmp -s "$top/expected" "$work/found"; then
            echo "$1 at call $total: the changes that follow are others"
            diff "$top/expected" "$work/found" || true
            cat "$work/trace"
            exit 1
        fi
        rm -rf "$state"
    done
    echo "$1: $total calls"
    [ "$total" -gt 5 ]
}
# One after another, since they share the storage.
for fault in "${faults[@]}"; do
    beside sweep "$fault"
    wait
done 2> "$top/noise" # the shell reports each kill
finish
