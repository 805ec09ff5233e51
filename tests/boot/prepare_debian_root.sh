#!/usr/bin/env bash
# A Debian root that boots under systemd-nspawn with systemd as PID 1: made
# once with debootstrap and kept in the boot cache, under a name made from
# everything it is made of, so that a changed package list makes a new one.
# Writes the root's path to OUT_FILE; tests copy the root and boot the copy.
# Usage: prepare_debian_root.sh OUT_FILE
set -euo pipefail
out=$1
# shellcheck source=SCRIPTDIR/boot-common.sh
. "$(dirname "$0")/boot-common.sh"
[ "$(id -u)" -eq 0 ] || fail "debootstrap and systemd-nspawn need root"
command -v debootstrap >/dev/null || fail "debootstrap is not installed (scripts/setup-deps installs it)"

suite=bookworm
mirror=http://deb.debian.org/debian
packages=systemd,systemd-sysv
cache=$(boot_cache)
key=$(echo "$suite $mirror minbase $packages" | sha256sum | cut -c1-12)
root=$cache/debian-$suite-$key

exec 9>"$cache/debian-root.lock"
flock 9
if [ ! -f "$root.complete" ]; then
    echo "making $root ($suite, $packages)"
    rm -rf "$root" "$root.log"
    debootstrap --variant=minbase --include="$packages" "$suite" "$root" "$mirror" >"$root.log" 2>&1 ||
        fail "debootstrap failed; its log ends: $(tail -n 20 "$root.log")"
    touch "$root.complete"
    # Roots of other package lists are of no further use.
    for old in "$cache"/debian-*.complete; do
        [ "$old" = "$root.complete" ] || rm -rf "${old%.complete}" "$old" "${old%.complete}.log"
    done
fi
echo "$root" >"$out"
echo "PASS: $root"
