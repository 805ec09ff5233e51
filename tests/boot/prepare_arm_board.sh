#!/usr/bin/env bash
# The emulated ARM board's kernel and BusyBox, from Debian's armhf archive:
# the newest linux-image-*-armmp that apt offers (PL011 serial, initramfs,
# System V IPC and Unix sockets built in, so no modules) and busybox-static.
# Fetched with a private apt configuration (its own lists and cache in the
# boot cache, architecture armhf), so the host's dpkg architectures and
# package state stay as they are; unpacked, never installed. Writes their
# paths to OUT_FILE as shell assignments (kernel=..., busybox=...).
# Usage: prepare_arm_board.sh OUT_FILE
set -euo pipefail
out=$1
# shellcheck source=SCRIPTDIR/boot-common.sh
. "$(dirname "$0")/boot-common.sh"
cache=$(boot_cache)
apt_dir=$cache/apt-armhf
board=$cache/arm-board

exec 9>"$cache/arm-board.lock"
flock 9
mkdir -p "$apt_dir/lists/partial" "$apt_dir/archives/partial" "$apt_dir/sources.list.d" "$board"
touch "$apt_dir/status"
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
cat >"$apt_dir/sources.list" <<EOF2
deb [signed-by=$keyring] http://deb.debian.org/debian bookworm main
deb [signed-by=$keyring] http://deb.debian.org/debian bookworm-updates main
EOF2
cat >"$apt_dir/apt.conf" <<EOF2
APT::Architecture "armhf";
APT::Architectures { "armhf"; };
Dir::State "$apt_dir";
Dir::State::Lists "$apt_dir/lists";
Dir::State::status "$apt_dir/status";
Dir::Cache "$apt_dir";
Dir::Cache::archives "$apt_dir/archives";
Dir::Etc::SourceList "$apt_dir/sources.list";
Dir::Etc::SourceParts "$apt_dir/sources.list.d";
APT::Sandbox::User "root";
EOF2
export APT_CONFIG=$apt_dir/apt.conf
apt-get update -qq >"$apt_dir/update.log" 2>&1 ||
    fail "apt-get update (armhf) failed: $(tail -n 5 "$apt_dir/update.log")"

kernel=$(apt-cache pkgnames linux-image- | grep -E '^linux-image-[0-9.]+-[0-9]+-armmp$' | sort -V | tail -n 1)
[ -n "$kernel" ] || fail "apt offers no linux-image-*-armmp package for armhf"

# unpacked PACKAGE MEMBER: the directory that holds MEMBER (a path pattern)
# of PACKAGE's current version, fetched and unpacked the first time.
unpacked() {
    local version deb dir
    version=$(apt-cache show --no-all-versions "$1" | sed -n 's/^Version: //p')
    [ -n "$version" ] || fail "apt offers no $1 for armhf"
    deb=$1_${version//:/%3a}_armhf.deb
    dir=$board/${deb%.deb}
    if [ ! -d "$dir" ]; then
        (cd "$apt_dir/archives" && apt-get download -qq "$1" >/dev/null) || fail "cannot download $1"
        rm -rf "$dir.new" && mkdir -p "$dir.new"
        dpkg-deb --fsys-tarfile "$apt_dir/archives/$deb" | tar -x -C "$dir.new" --wildcards "$2" ||
            fail "no $2 in $deb"
        mv "$dir.new" "$dir"
        rm -f "$apt_dir/archives/$deb"
    fi
    echo "$dir"
}
kernel_dir=$(unpacked "$kernel" './boot/vmlinuz-*')
busybox_dir=$(unpacked busybox-static ./bin/busybox)
vmlinuz=$(find "$kernel_dir/boot" -name 'vmlinuz-*' | head -n 1)
# Older versions are of no further use.
for old in "$board"/*; do
    [ "$old" = "$kernel_dir" ] || [ "$old" = "$busybox_dir" ] || rm -rf "$old"
done
printf 'kernel=%q\nbusybox=%q\n' "$vmlinuz" "$busybox_dir/bin/busybox" >"$out"
echo "PASS: $kernel ($(basename "$kernel_dir")), $(basename "$busybox_dir")"
