#!/usr/bin/env bash
# Runs tests that depend on the file system on others than the build folder's: tests/file-systems.sh
# BUILD-FOLDER. Needs root for the mounts and for becoming another user; skipped (77) without.
set -euo pipefail
build=$(cd "$1" && pwd -P)
[ "$(id -u)" -eq 0 ] || { echo "skipped: only root may mount"; exit 77; }
for tool in mkfs.ext4 mkfs.xfs mkfs.btrfs setpriv; do
    command -v "$tool" > /dev/null || { echo "skipped: no $tool"; exit 77; }
done

work=$(mktemp -d "$build/file-systems-XXXXXX")
trap 'umount "$work"/* 2> /dev/null || true; rm -rf "$work"' EXIT

run_suites() { # FOLDER
    for suite in "test_platform_files *" \
        "test_platform_volume VolumeServiceTest.*:RootsTest.*:HistoryTest.*-*CannotBeRead*:*SeenTooLate*" \
        "test_tidewell IdentityTest.*:ListingTest.*:PageTokenTest.*:ItemTest.*:MutationsTest.*:TrashTest.*-*Saturates*"; do
        set -- "$1" ${suite% *} "${suite#* }"
        TMPDIR=$1 "$build/tests/$2" --gtest_brief=1 "--gtest_filter=$3"
    done
    TMPDIR=$1 "$build/tests/converge" --runs=10
}

for system in ext4 xfs btrfs tmpfs; do
    echo "== $system"
    mkdir "$work/$system"
    if [ "$system" = tmpfs ]; then
        mount -t tmpfs tmpfs "$work/$system"
    else
        truncate -s 512M "$work/$system.image"
        "mkfs.$system" -q "$work/$system.image"
        mount -o loop "$work/$system.image" "$work/$system"
    fi
    run_suites "$work/$system"
    umount "$work/$system"
done

echo "== another mount in the storage"
mkdir -p "$work/storage/mounted"
touch "$work/storage/document"
mount -t tmpfs tmpfs "$work/storage/mounted"
touch "$work/storage/mounted/inside"
for words in "mv document --to mounted" "mv mounted/inside --to root" "trash mounted"; do
    status=0
    (cd "$work/storage" && "$build/cli/tidewell" --storage . --state "$work/state" $words) \
        2> "$work/error" || status=$?
    [ "$status" -eq 3 ] && grep -q 'mounted.*: not an item of the document storage' "$work/error"
done
umount "$work/storage/mounted"

echo "== a folder that the disk does not give any more"
image=$work/damaged.image
truncate -s 64M "$image"
mkfs.ext4 -q -b 4096 "$image"
mkdir "$work/damaged"
damaged() { "$build/cli/tidewell" --storage "$work/damaged/storage" --state "$work/damaged-state" "$@"; }
mount -o loop "$image" "$work/damaged"
mkdir -p "$work/damaged/storage/"{broken,whole}
touch "$work/damaged/storage/"{broken,whole}/inside
damaged tree root > /dev/null
anchor=$(damaged anchor working-set)
umount "$work/damaged"
block=$(debugfs -R "blocks /storage/broken" "$image" 2> /dev/null)
dd if=/dev/urandom of="$image" bs=4096 count=1 seek="${block% }" conv=notrunc status=none
mount -o loop "$image" "$work/damaged"
touch "$work/damaged/storage/broken"
damaged changes working-set --since "$anchor" 2> "$work/error" && exit 1
grep -q 'expired' "$work/error"  # not deleted
damaged ls "$work/damaged/storage/broken" 2> "$work/error" && exit 1
grep -q 'broken: Bad message' "$work/error"
damaged ls "$work/damaged/storage/whole" | grep -q inside
umount "$work/damaged"

# await CONDITION: asks until it is so; fails after a minute, with what did not come.
await() {
    local until=$((SECONDS + 60))
    until eval "$1"; do
        [ "$SECONDS" -lt "$until" ] || { echo "never came: $1"; exit 1; }
        sleep 0.1
    done
}

echo "== a storage that is missing, and mounted again"
mkdir -p "$work/template/storage" "$work/stick"
touch "$work/template/storage/a"
truncate -s 64M "$work/stick.image"
mkfs.ext4 -q -d "$work/template" "$work/stick.image"
# Another file system, whose folder has the same inode number and generation.
cp "$work/stick.image" "$work/other.image"
tune2fs -U random "$work/other.image" > "$work/output" 2>&1
stick=("$build/cli/tidewell" --storage "$work/stick/storage" --state "$work/stick-state")
mount -o loop "$work/stick.image" "$work/stick"
identifier=$("${stick[@]}" resolve "$work/stick/storage/a")
"${stick[@]}" watch working-set > "$work/watched" 2> "$work/error" &
watch=$!
await 'touch "$work/stick/storage/begun"; grep -q /begun "$work/watched"'
# Shadowed, while things happen in it.
(cd "$work/stick/storage" && exec tail -f /dev/null) &
inside=$!
mount -o loop "$work/other.image" "$work/stick"
touch "$work/stick/storage/stranger"
await 'touch "/proc/$inside/cwd/shadowed"; grep -q "the storage is missing" "$work/error"'
kill "$inside"
umount "$work/stick"
await 'grep -q /shadowed "$work/watched"'
await 'umount "$work/stick" 2> /dev/null'  # nothing that is idle holds it
mount -o loop "$work/stick.image" "$work/stick"
await 'touch "$work/stick/storage/back"; grep -q /back "$work/watched"'
kill "$watch"
wait "$watch"
if grep -E 'stranger|deleted' "$work/watched"; then exit 1; fi
umount "$work/stick"
status=0
"${stick[@]}" ls > "$work/output" 2> "$work/error" || status=$?
[ "$status" -eq 1 ] && grep -q 'the storage is missing' "$work/error" && [ ! -s "$work/output" ]
mount -o loop "$work/stick.image" "$work/stick"
[ "$("${stick[@]}" resolve "$work/stick/storage/a")" = "$identifier" ]
umount "$work/stick"

mount_weak() { # SYSTEM IMAGE
    case $1 in
    vfat) mount -o loop "$2" "$work/weak" 2> "$work/error" ;;
    fuse)
        fuse2fs -f "$2" "$work/weak" > "$work/output" 2>&1 &
        server=$!
        await 'mountpoint -q "$work/weak" || ! kill -0 "$server" 2> /dev/null'
        mountpoint -q "$work/weak"
        ;;
    esac
}
umount_weak() {
    umount "$work/weak"
    if [ -n "${server-}" ]; then wait "$server"; fi
}
mkdir "$work/weak"
for system in vfat fuse; do
    echo "== $system, whose handles do not last"
    image=$work/weak-$system.image
    truncate -s 64M "$image"
    case $system in
    vfat) mkfs.vfat "$image" > "$work/output" ;;
    fuse) mkfs.ext4 -q "$image" ;;
    esac
    if ! mount_weak "$system" "$image"; then
        echo "skipped: this machine mounts no $system"
        continue
    fi
    weak() { "$build/cli/tidewell" --storage "$work/weak/storage" --state "$work/state-$system" "$@"; }
    mkdir "$work/weak/storage" "$work/weak/storage/folder"
    touch "$work/weak/storage/a"
    weak --json doctor | grep -q '"identity":"weak"'
    identifier=$(weak resolve "$work/weak/storage/a")
    anchor=$(weak anchor working-set)
    mv "$work/weak/storage/a" "$work/weak/storage/folder/b"
    [ "$(weak path "$identifier")" = "$work/weak/storage/folder/b" ]
    weak changes working-set --since "$anchor" | grep -q "updated.*folder/b"
    # It is known again, though everything may have other numbers; then the anchor has expired.
    umount_weak
    mount_weak "$system" "$image"
    weak tree root | grep -q '── b'
    status=0
    weak changes working-set --since "$anchor" > "$work/output" 2>&1 || status=$?
    [ "$status" -eq 4 ] || { [ "$status" -eq 0 ] && grep -q "updated.*folder/b" "$work/output"; }
    umount_weak
done

echo "== another user, who may not read everything"
home=$work/home
mkdir -p "$home/Documents/closed" "$home/Documents/open"
touch "$home/Documents/closed/inside" "$home/Documents/secret" "$home/Documents/open/inside"
chmod 000 "$home/Documents/closed" "$home/Documents/secret"
chown -R 65534:65534 "$home"
chmod 711 "$work"
as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups env "HOME=$home" "$@"; }
tidewell() { as_nobody "$build/cli/tidewell" --storage "$home/Documents" --state "$home/s" "$@"; }
names=$(tidewell --json ls working-set | sed 's/.*"filename":"\([^"]*\)".*/\1/' | sort | xargs)
[ "$names" = "closed inside open secret" ] || { echo "lists '$names'"; exit 1; }
tidewell --json stat "$home/Documents/secret" | grep -q '"capabilities":1,'
tidewell --json stat "$home/Documents/open" | grep -q '"capabilities":63,'
status=0
tidewell ls "$home/Documents/closed" 2> "$work/error" || status=$?
[ "$status" -eq 1 ] && grep -q 'Permission denied' "$work/error"
status=0
tidewell tree root > "$work/output" 2> "$work/error" || status=$?
[ "$status" -eq 1 ] && grep -q 'closed: Permission denied' "$work/error"
grep -A 2 '── open' "$work/output" | grep -q inside  # it went on
mkdir "$work/scratch" && chown 65534:65534 "$work/scratch"
as_nobody env "TMPDIR=$work/scratch" "$build/tests/test_platform_files" --gtest_brief=1
