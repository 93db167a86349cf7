#!/usr/bin/env bash
# Kills the command at each call that changes the disk while it takes in a burst of changes, and
# checks that the next run tells all of them since the anchor from before: tests/kill-sweep.sh
# BUILD-FOLDER. Then lets each of these calls fail with a full disk instead. Needs strace; skipped
# (77) where it may not trace.
set -euo pipefail
build=$(cd "$1" && pwd)
strace -o /dev/null true 2> /dev/null || { echo "skipped: strace may not trace"; exit 77; }
work=$(mktemp -d "$build/kill-sweep-XXXXXX")
trap 'rm -rf "$work"' EXIT
export ASAN_OPTIONS=detect_leaks=0
calls=pwrite64,fdatasync,fsync,ftruncate,rename,unlink,mkdir,link

tidewell() { "$build/cli/tidewell" --storage "$work/storage" --state "$work/state" --json "$@"; }
told() { # what the working set tells since the anchor: identifiers of documents that were known, and paths
    tidewell changes working-set --since "$anchor" | grep -v '"anchor"' |
        sed -E 's/.*"(delete)":"([^"]*)".*/\1 \2/; s/.*"path":"([^"]*)".*/update \1/' | sort
}

mkdir -p "$work/storage/a/b" "$work/storage/c"
for i in {1..10}; do echo "$i" > "$work/storage/a/f$i"; echo "$i" > "$work/storage/c/g$i"; done
tidewell tree root > /dev/null
anchor=$(tidewell anchor working-set | sed -E 's/.*"anchor":"([^"]*)".*/\1/')
for i in {1..5}; do
    mv "$work/storage/a/f$i" "$work/storage/c/f$i"            # moved
    rm "$work/storage/c/g$i"                                  # deleted
    echo more >> "$work/storage/a/f$((i + 5))"                # edited
    echo new > "$work/storage/a/b/n$i"                        # made
    echo saved > "$work/storage/c/t"; mv "$work/storage/c/t" "$work/storage/c/g$((i + 5))"
done
mv "$work/storage/a/b" "$work/storage/b"
cp -a "$work/state" "$work/before"
told > "$work/expected"
[ "$(grep -c update "$work/expected")" -ge 25 ] && [ "$(grep -c delete "$work/expected")" -eq 5 ] # and no more

sweep() { # FAULT
    local at=0 status=0
    while [ "$at" -lt 400 ]; do
        at=$((at + 1))
        rm -rf "$work/state"
        cp -a "$work/before" "$work/state"
        status=0
        strace -f -qq -o "$work/trace" -e trace="$calls" -e inject="$calls:$1:when=$at" \
            "$build/cli/tidewell" --storage "$work/storage" --state "$work/state" sync \
            > "$work/output" 2>&1 || status=$?
        grep -q INJECTED "$work/trace" || [ "$status" -eq 137 ] || break
        if ! told > "$work/found" || ! cmp -s "$work/expected" "$work/found"; then
            echo "$1 at call $at: the changes that follow are others"
            diff "$work/expected" "$work/found" || true
            tail -n 3 "$work/trace"
            exit 1
        fi
    done
    echo "$1: $((at - 1)) calls"
    [ "$at" -gt 5 ]
}
sweep signal=KILL 2> "$work/noise" # the shell reports each kill
sweep error=ENOSPC
