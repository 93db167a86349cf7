#!/usr/bin/env bash
# Checks that the harness finds faults: tests/convergence/planted.sh BUILD-FOLDER [PATCH...] applies
# each patch of tests/convergence/planted to a copy of the sources and runs seeds until one fails.
# Fails where fewer than five in six of the patches are found or one does not apply. SEEDS is how
# many seeds each patch may take; SOME is how many patches run, others with each commit.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)
build=$(cd "$1" && pwd)
shift
[ $# -gt 0 ] || set -- "$here"/planted/*.patch
seeds=${SEEDS:-1000}
if [ -n "${SOME:-}" ]; then
    first=$(($(git -C "$source" rev-list --count HEAD) * SOME % $#))
    set -- "${@:first+1}" "${@:1:first}"
    set -- "${@:1:SOME}"
fi

work=$(mktemp -d "$build/planted-XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir "$work/source"
git -C "$source" ls-files -z | (cd "$source" && xargs -0 cp --parents -t "$work/source")
# Without warnings: a fault may leave something unused, and -O1 has warnings of its own.
cmake -S "$work/source" -B "$work/build" -G Ninja -DCMAKE_CXX_FLAGS='-O1 -w' > "$work/log"

finds_it() {
    local first
    (cd "$work/build" && ./tests/test_convergence --gtest_brief=1 \
        '--gtest_filter=ScriptsTest.*' --gtest_fail_fast > "$work/log" 2>&1) || return 0
    for ((first = 1; first <= seeds; first += 20)); do
        (cd "$work/build" && ./tests/converge --seed="$first" --runs=20 > "$work/log" 2>&1) || return 0
    done
    return 1
}

found=0
for patch; do
    patch -s -p1 -d "$work/source" < "$patch"
    ninja -C "$work/build" converge test_convergence > "$work/log" || { cat "$work/log"; exit 1; }
    if finds_it; then
        found=$((found + 1))
        echo "found:     $(basename "$patch"): $(tail -n 3 "$work/log" | head -n 1)"
    else
        echo "NOT FOUND: $(basename "$patch")"
    fi
    patch -s -R -p1 -d "$work/source" < "$patch"
done
echo "$found of $# planted faults found"
[ $((found * 6)) -ge $(($# * 5)) ]
