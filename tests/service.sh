#!/usr/bin/env bash
# BUILD: commands beside a service print what they print without one; a watch goes on when the service
# ends; nobody is locked out by what was killed; an extension that is killed, or stopped, is replaced and
# nobody notices but who was changing something.
set -euo pipefail
tidewell=$(realpath "$1")/cli/tidewell
scratch=$(mktemp -d)
unset XDG_RUNTIME_DIR
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$scratch"' EXIT
cd "$scratch"

fail() { echo "service.sh: $*" >&2; exit 1; }
run() { "$tidewell" --storage "$scratch/documents" --state "$scratch/state" "$@"; }
# Starts COMMAND... and waits for its first line on standard output; its PID is in $started.
start() { # NAME COMMAND...
    local name=$1
    shift
    mkfifo "$name.lines"
    "$tidewell" --storage "$scratch/documents" --state "$scratch/state" "$@" >"$name.lines" \
        2>"$name.errors" &
    started=$!
    exec {from}<"$name.lines"
    read -r -u "$from" -t 30 line || fail "$name does not begin: $(cat "$name.errors")"
}
expectLine() { # PATTERN: of a following line of the last that was started
    while read -r -u "$from" -t 30 line; do [[ $line =~ $1 ]] && return; done
    fail "no line with $1: $(cat ./*.errors)"
}

mkdir -p documents/folder documents/other
for i in $(seq 300); do echo "$i" >"documents/folder/note $i"; done
ln documents/folder/"note 1" documents/other/linked
anchor=$(run anchor documents/folder)
echo changed >documents/folder/"note 2"
run sync

# What reads.
questions() { # INTO
    local n=0 words
    mkdir -p "$1"
    while read -r words; do
        n=$((n + 1))
        # shellcheck disable=SC2086
        run $words >"$1/$n" 2>&1 || echo "exit $?" >>"$1/$n"
    done <<END
ls documents
--json ls documents/folder
ls --sort-by-date documents/folder
ls --one-page documents/folder
--json ls working-set
tree documents
--json stat documents/other/linked
stat documents/missing
path did=1
path did=99999
resolve documents/folder
--json changes documents/folder --since $anchor
changes documents/folder --since $(printf 'x' | base64)
search note 2
--json search linked
cat documents/other/linked
cat documents/folder
apps --all
empty-trash --older-than 1d --dry-run
sync
END
}
# What changes something, each time from the same state.
verbs() { # INTO
    mkdir -p "$1" documents/work
    {
        run mkdir made --in documents/work
        run import documents/other/linked --to documents/work/made
        run rename documents/work/made/linked "a new name"
        run mv documents/work/made/"a new name" --to documents/work --name moved
        run tag documents/work/moved red green
        run favorite documents/work/moved 3
        run trash documents/work/moved
        run untrash documents/.Trash/moved --to documents/work
        run rm documents/work/moved || echo "exit $?"
        run mkdir work --in documents || echo "exit $?"
        run rm documents/work
    } 2>&1 | sed -E 's/(did|fid)=[0-9]+/ID/g; s/[0-9]{4}-[0-9]{2}-[0-9]{2}[ T][0-9:.Z]+/DATE/g; s/^(fileID|docID) .*/\1/' \
        >"$1/verbs"
}

verbs alone
questions alone
start serve serve
server=$started
questions served
verbs served
diff -r alone served || fail "a service changes what commands print"

start watch --json watch documents/folder
watch=$started
for i in $(seq 20); do run stat "documents/folder/note $i" >/dev/null & stats+=($!); done
for stat in "${stats[@]}"; do wait "$stat" || fail "a stat beside others fails"; done
run serve >/dev/null 2>second && fail "two serve one store"
grep -q "in use by PID $server" second || fail "$(cat second)"
echo new >documents/folder/live
expectLine '"filename":"live"'

# The watch goes on, serves now, and misses nothing.
kill "$server"
wait "$server" || fail "the service does not end well"
echo new >documents/folder/later
expectLine '"filename":"later"'
grep -qx "$watch" state/data/storages/*/lock || fail "the watch does not serve"
run stat documents/folder/later >/dev/null
kill -9 "$watch"
wait "$watch" 2>/dev/null || true
run stat documents/folder/later >/dev/null || fail "a process that was killed locks others out"

# The extension's process, killed as often as it starts.
mv serve.lines serve.ended
start serve serve
host=$started
extension() { # its PID, once there is one: a command may have the store for a moment
    for _ in $(seq 1000); do
        pgrep -P "$host" -x tidewell-extens && return
        sleep 0.01
    done
}
grep -q "^NoNewPrivs:.*1" "/proc/$(extension)/status" || fail "the extension may get privileges"
grep -q "^Seccomp:.*2" "/proc/$(extension)/status" || fail "the extension may make any call"
killAll() { while sleep 0.4; do pkill -9 -P "$host" -x tidewell-extens || true; done; }
killAll & killer=$!
for i in $(seq 100); do run stat "documents/folder/note $i" >/dev/null || fail "stat fails beside kills"; done
run --json ls documents/folder >listed || fail "ls fails beside kills"
[ "$(wc -l <listed)" = "$(find documents/folder -type f | wc -l)" ] || fail "rows are missing, or twice"
head -c 30M /dev/urandom >large
codes=
for i in $(seq 8); do
    code=0
    run import large --to documents/other >/dev/null 2>imported || code=$?
    codes+=$code
    [ "$code" = 0 ] || [ "$code" = 5 ] || fail "an import beside kills ends with $code: $(cat imported)"
done
kill "$killer"
wait "$killer" 2>/dev/null || true
run sync
for copy in documents/other/large*; do cmp large "$copy" || fail "half a copy is left"; done
[ "$(find documents -name '.tidewell*' | wc -l)" = 0 ] || fail "unfinished work is left"

# One that does not answer is replaced by one other, and none outlives the host.
stopped=$(extension)
kill -STOP "$stopped"
run stat documents/folder/later >/dev/null || fail "a stopped extension is not replaced"
kill -0 "$stopped" 2>/dev/null && fail "there are two extensions"
last=$(extension)
kill -STOP "$last"
kill -9 "$host"
wait "$host" 2>/dev/null || true
run stat documents/folder/later >/dev/null || fail "an extension outlives its host"
