#!/usr/bin/env bash
# Runs the examples of the manual as they stand in it, and each command as its text describes it:
# tests/manual.sh BUILD-FOLDER.
set -euo pipefail
build=$(cd "$1" && pwd -P)
manual=$(cd "$(dirname "$0")/.." && pwd)/docs/man/tidewell.1.scd
top=$(mktemp -d "$build/manual-XXXXXX")
trap 'rm -rf "$top"' EXIT
trap 'echo "failed at line $LINENO: $BASH_COMMAND"' ERR
export ASAN_OPTIONS=detect_leaks=0 PATH=$build/cli:$PATH HOME=$top XDG_DATA_HOME=$top/share
export XDG_DATA_DIRS=$top/none TIDEWELL_STORAGE=$top/Documents TIDEWELL_STATE=$top/state
export TIDEWELL_DEVICE_CLASS=3 TIDEWELL_SCREEN_SCALE=2
mkdir -p "$top"/{Documents,share/applications}
cd "$top/Documents"

expect() { # EXPECTED FOUND WHAT
    [ "$1" = "$2" ] && return
    printf '%s:\n%s\ninstead of:\n%s\n' "$3" "$2" "$1"
    exit 1
}
prints() { # EXPECTED FILTER WORDS...: what the command prints, through the filter
    local expected=$1 filter=$2
    shift 2
    expect "$expected" "$(tidewell --json "$@" | jq -r --arg top "$PWD/" "$filter")" "tidewell $*"
}
place='.path | ltrimstr($top)'

# The examples, each with what it prints here.
mapfile -d '' examples < <(sed -n '/^# EXAMPLES/,$p' "$manual" |
    awk '/^```/ { if (inside) printf "%c", 0; inside = !inside; next } inside')
expect 3 ${#examples[@]} "the number of examples"
mkdir Projects Projects/folder Archive
for size in {01..12}; do head -c "$((10#$size))" /dev/zero > "Projects/$size"; done
expect "$(printf '"%02d"\n' {12..3})" "$(bash -euo pipefail -c "${examples[0]}")" "example 1"
echo report > report.odt
expect "$PWD/Archive/2026.odt" "$(bash -euo pipefail -c "${examples[1]}")" "example 2"
mkfifo "$top/paths"
set -m # the example is a process group of its own
bash -c "${examples[2]}" > "$top/paths" 2>&1 &
set +m
exec 3< "$top/paths"
for ((i = 0; i < 60; ++i)); do
    echo "$i" > note
    if read -r -t 1 path <&3; then break; fi # it watches by then
done
expect "$PWD/note" "$path" "example 3"
kill -- -$!
cat <&3 > /dev/null # until all of them have ended
exec 3<&-

# Commands that change documents.
name=$'a \xff'
mkdir in
echo a > "in/$name"
mkdir -p "$top/import/deep"
echo content > "$top/import/deep/file"
did=$(tidewell resolve "in/$name")
prints in/new "$place" mkdir new --in in
prints 'in/new 2' "$place" mkdir new --in in
prints in/import "$place" import "$top/import" --to in
expect content "$(tidewell cat in/import/deep/file)" "the content of what was imported"
prints in/c "$place" rename "$did" c
prints in/new/d "$place" mv "$did" --to in/new --name d
expect "$PWD/in/new/d" "$(tidewell path "$did")" "the path of what was moved"
tidewell tree in | grep -q '── d$'
prints .Trash/d "$place" trash "$did"
prints .Trash/d "$place" empty-trash --older-than 0s --dry-run
if tidewell untrash "$did" 2> "$top/error"; then exit 1; fi
grep -q 'give --to' "$top/error"
prints d "$place" untrash "$did" --to root
prints .Trash/d "$place" trash "$did"
prints .Trash/d "$place" empty-trash --older-than 0s
[ ! -e .Trash/d ]
prints in/import "$place" rm in/import
[ ! -e in/import ]

# What a user sets.
prints 'b a' '.tags | join(" ")' tag note b a
prints 7 .favoriteRank favorite note 7
prints 2026-01-31T09:15:00.000000000Z .lastUsedDate used note 2026-01-31T10:15:00+01:00
for verb in tag favorite used; do tidewell "$verb" note --clear > "$top/out"; done
prints '[[],null,null]' '[.tags, .favoriteRank, .lastUsedDate] | tojson' stat note

# Applications, their documents and icons.
application() { # IDENTIFIER NAME LINES
    printf '[Desktop Entry]\nType=Application\nExec=x\nName=%s\n%b' "$2" "$3" \
        > "$top/share/applications/$1.desktop"
}
echo '<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 9 9"><rect width="9" height="9"/></svg>' \
    > "$top/icon.svg"
application org.pen Pen "X-Quenby-SupportsDocumentBrowser=true\nIcon=$top/icon.svg\n"
application org.mute Mute ''
shown='"\(.bundleIdentifier) \(.name) \(.reason)"'
prints 'org.pen Pen null' "$shown" apps
refusal='it does not offer its documents'
prints $'org.pen Pen null\norg.mute Mute '"$refusal" "$shown" apps --all
prints 'org.mute Mute null' "$shown" apps allow org.mute
prints 'org.pen Pen the user keeps it out' "$shown" apps deny org.pen
prints 'org.mute Mute null' "$shown" apps
prints '#org.mute' 'select(.isContainer).itemIdentifier' ls
prints 'org.pen Pen null' "$shown" apps allow org.pen
status=0
tidewell apps allow org.none 2> "$top/error" || status=$?
expect 3 "$status" "the exit code of an application that is not installed"
prints $'null\nimage/png' .typeIdentifier thumbnail root '#org.pen' -o "$top"
png=$(tidewell --json thumbnail '#org.pen' -o "$top" | jq -r .thumbnail)
expect '0098 0098' "$(od -An -tx2 --endian=big -j 16 -N 8 "$png" | awk '{ print $2, $4 }')" \
    "width and height of the thumbnail"

# Search.
finds() { # NAMES WORDS...
    local expected=$1
    shift
    expect "$expected" "$(tidewell --json search "$@" | jq -r .filename | sort | paste -sd '|')" "search $*"
}
container=$(tidewell path '#org.pen')
echo old > "$container/old letter.txt"
echo new > 'Letter to "Zoë".txt'
finds 'Letter to "Zoë".txt|old letter.txt' LETT
finds 'Letter to "Zoë".txt' zoe let
finds Pen pe
for odd in '"' '* ORX' 'NEAR(' nothing; do finds '' "$odd"; done
mv Letter* note
finds 'old letter.txt' lett
for index in "$top"/state/cache/storages/*/search.sqlite; do echo damaged > "$index"; done
finds 'old letter.txt' lett
tidewell apps deny org.pen > "$top/out"
finds '' lett
tidewell apps allow org.pen > "$top/out"
finds 'old letter.txt' lett
tidewell trash "$container/old letter.txt" > "$top/out"
finds '' lett

touch Projects/{100..599}
tidewell sync
# Pages, each by another process.
page=$(tidewell --json ls --one-page Projects)
pages=$page
while token=$(tail -n 1 <<< "$page" | jq -er .nextPage); do
    expect 201 "$(wc -l <<< "$page")" "the lines of a page that another one follows"
    page=$(tidewell --json ls --one-page --page "$token" Projects)
    pages+=$'\n'$page
done
expect "$(ls Projects)" "$(jq -r '.filename // empty' <<< "$pages" | sort)" "the names on all pages"

# A reader that stops early, before all has been written.
tidewell --json ls Projects 2> "$top/error" | head -n 1 > "$top/out"
expect '' "$(cat "$top/error")" "what is said to a reader that stops"
