#!/usr/bin/env bash
# The install rules under their standard uses, checked file by file: staged
# with DESTDIR for prefix /usr, installed with --prefix into a directory, and
# the runtime component alone. Both start-up scripts must name the installed
# binary and nothing may be written outside the stage or the prefix.
# Usage: install_test.sh BUILD_DIR
set -euo pipefail
build=$1
fail() { echo "FAIL: $*"; exit 1; }
# shellcheck source=tests/support/namespaces.sh
. "$(dirname "$0")/../support/namespaces.sh"
require_namespaces

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")

# Runs a command with the whole file system read-only except the work and
# build directories, so that a write anywhere else fails the install.
confined() {
    # shellcheck disable=SC2016 # expanded by the inner shell
    unshare --mount --map-root-user bash -c 'mount --make-rprivate / &&
        mount --bind "$1" "$1" && mount --bind "$2" "$2" && mount -o remount,bind,ro / &&
        shift 2 && exec "$@"' confined "$work" "$build" "$@"
}

# Installs with the given environment and arguments, confined, then checks
# that the tree under $1 holds exactly the list on standard input.
check_install() {
    local root=$1
    shift
    confined "$@" >/dev/null || fail "install failed or wrote outside $root: $*"
    diff <(cd "$root" && find . ! -type d | sort) <(sort) || fail "unexpected tree in $root"
}

stage=$work/stage
check_install "$stage" env DESTDIR="$stage" cmake --install "$build" --prefix /usr <<EOF2
./etc/init.d/pplcounter
./usr/bin/camsim
./usr/bin/pplctl
./usr/include/pplcounter/Tarn3DPCAPIClient.h
./usr/include/pplcounter/UBrandLAPIClient.h
./usr/$libdir/libTarn3DPCAPIClient.so
./usr/$libdir/libTarn3DPCAPIClient.so.1
./usr/$libdir/libUBrandLAPIClient.so
./usr/$libdir/libUBrandLAPIClient.so.1
./usr/lib/cgi-bin/pplcounter-status
./usr/lib/systemd/system/pplcounter.service
./usr/lib/tmpfiles.d/pplcounter.conf
./usr/sbin/pplcounter
./usr/share/doc/pplcounter/CHANGELOG.md
./usr/share/doc/pplcounter/LICENSE
./usr/share/doc/pplcounter/ZV318System.ini.example
./usr/share/man/man1/camsim.1
./usr/share/man/man1/pplctl.1
./usr/share/man/man8/pplcounter.8
./usr/share/pplcounter/occupancy.html
EOF2
grep -qx 'DAEMON=/usr/sbin/pplcounter' "$stage/etc/init.d/pplcounter" || fail "init script for /usr"
grep -qx 'ExecStart=/usr/sbin/pplcounter' "$stage/usr/lib/systemd/system/pplcounter.service" ||
    fail "unit for /usr"

prefix=$work/prefix
check_install "$prefix" cmake --install "$build" --prefix "$prefix" --component runtime <<EOF2
./bin/pplctl
./etc/init.d/pplcounter
./$libdir/libTarn3DPCAPIClient.so.1
./$libdir/libUBrandLAPIClient.so.1
./lib/systemd/system/pplcounter.service
./lib/tmpfiles.d/pplcounter.conf
./sbin/pplcounter
./share/doc/pplcounter/CHANGELOG.md
./share/doc/pplcounter/LICENSE
./share/doc/pplcounter/ZV318System.ini.example
./share/man/man1/pplctl.1
./share/man/man8/pplcounter.8
EOF2
unit=$prefix/lib/systemd/system/pplcounter.service
grep -qx "DAEMON=$prefix/sbin/pplcounter" "$prefix/etc/init.d/pplcounter" || fail "init script for $prefix"
grep -qx "ExecStart=$prefix/sbin/pplcounter" "$unit" || fail "unit for $prefix"
[ -x "$prefix/sbin/pplcounter" ] || fail "the installed service is not executable"

# A static build links no shared object, so it refuses the makers' client
# libraries at configure time, before anything is built.
src=$(sed -n 's/^CMAKE_HOME_DIRECTORY:[A-Z]*=//p' "$build/CMakeCache.txt")
out=$(cmake -S "$src" -B "$work/static" -DPPL_STATIC=ON -DPPL_VENDOR_DIR="$work" 2>&1) &&
    fail "PPL_STATIC with PPL_VENDOR_DIR was configured"
grep -q "PPL_STATIC cannot link the camera makers' client libraries" <<<"$out" ||
    fail "PPL_STATIC with PPL_VENDOR_DIR refused without saying why: $out"

if command -v systemd-analyze >/dev/null; then
    out=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify: $out"
    [ -z "$out" ] || fail "systemd-analyze verify: $out"
    systemd-analyze security --offline=true --threshold=20 "$unit" | tail -n 1
    systemd-analyze security --offline=true --threshold=20 "$unit" >/dev/null ||
        fail "the unit's exposure is above 2.0"
else
    echo "systemd-analyze not installed: unit not analysed"
fi
echo PASS
