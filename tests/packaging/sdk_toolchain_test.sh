#!/usr/bin/env bash
# The vendor-SDK toolchain file, pointed at Debian's armhf cross compiler (as
# the compiler prefix) and a target root laid out as SDKs ship one (usr/include,
# usr/lib and lib, here links into Debian's /usr/arm-linux-gnueabihf). The
# service must build, be a 32-bit ARM program and run under emulation.
# Usage: sdk_toolchain_test.sh SOURCE_DIR
set -euo pipefail
src=$1
fail() { echo "FAIL: $*"; exit 1; }
# shellcheck source=tests/support/namespaces.sh
. "$(dirname "$0")/../support/namespaces.sh"
require_namespaces
triplet=arm-linux-gnueabihf
command -v "$triplet-g++" >/dev/null || fail "$triplet-g++ is not installed"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/sysroot
mkdir -p "$root/usr"
ln -s "/usr/$triplet/include" "$root/usr/include"
ln -s "/usr/$triplet/lib" "$root/usr/lib"
ln -s "/usr/$triplet/lib" "$root/lib"

cmake -S "$src" -B "$work/build" -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-sdk.cmake" \
    -DPPL_SDK_PREFIX="$(dirname "$(command -v "$triplet-g++")")/$triplet-" \
    -DPPL_SDK_SYSROOT="$root" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
grep -q "CMAKE_SYSROOT.*$root" "$work/build/CMakeCache.txt" ||
    grep -rq -- "--sysroot=$root" "$work/build/CMakeFiles" || fail "the sysroot is not used"
cmake --build "$work/build" -j"$(nproc 2>/dev/null || echo 2)" --target pplcounter >/dev/null
readelf -h "$work/build/pplcounter" | grep -q "Machine:.*ARM$" || fail "pplcounter is not an ARM program"
readelf -h "$work/build/pplcounter" | grep -q "Class:.*ELF32" || fail "pplcounter is not 32-bit"
# It runs: a second start against a held lock ends at once with its one line.
if command -v qemu-arm >/dev/null; then
    # shellcheck disable=SC2016 # expanded by the inner shell
    out=$(unshare --mount --map-root-user bash -c 'mount --make-rprivate / &&
        mount --bind "$1" /mnt && mount -t tmpfs tmpfs /tmp && mount -t tmpfs -o mode=0755 tmpfs /run &&
        exec 9>/run/PPLCounter.lock && flock 9 &&
        qemu-arm -L /mnt/sysroot /mnt/build/pplcounter 2>&1; echo "status $?"' sdk "$work") || true
    [ "$out" = "pplcounter: another pplcounter is already running (/run/PPLCounter.lock is locked)
status 1" ] || fail "the ARM service did not run as expected: $out"
fi
echo PASS
