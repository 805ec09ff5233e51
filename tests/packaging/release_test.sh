#!/usr/bin/env bash
# The release archives cpack makes from the three install components, file by
# file, and the version every program shows against project(VERSION) of the
# top-level CMakeLists.txt: pplctl --version, camsim --version and the text in
# the service binary, all as unpacked from the (stripped) archives.
# Usage: release_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2
fail() { echo "FAIL: $*"; exit 1; }

version=$(sed -n 's/^project(pplcounter VERSION \([0-9.]*\) .*/\1/p' "$src/CMakeLists.txt")
[[ $version =~ ^1\.[0-9]+\.[0-9]+$ ]] || fail "project(VERSION) is not 1.x.y: '$version'"
arch=$(sed -n 's/^PPL_PACKAGE_ARCH:STRING=//p' "$build/CMakeCache.txt")
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
(cd "$build" && cpack -B "$work" >"$work/cpack.log" 2>&1) || fail "cpack: $(cat "$work/cpack.log")"

# Checks that the archive holds exactly the files (links included, no
# directories) listed on standard input, and unpacks it into $work/root.
check_archive() {
    local archive=$work/pplcounter-$version-$arch-$1.tar.gz
    [ -f "$archive" ] || fail "no $(basename "$archive") among: $(ls "$work")"
    diff <(tar -tzf "$archive" | grep -v '/$' | LC_ALL=C sort) <(LC_ALL=C sort) ||
        fail "unexpected files in $(basename "$archive")"
    mkdir -p "$work/root"
    tar -C "$work/root" -xzf "$archive"
}
check_archive runtime <<EOF2
etc/init.d/pplcounter
usr/bin/pplctl
usr/$libdir/libTarn3DPCAPIClient.so.1
usr/$libdir/libUBrandLAPIClient.so.1
usr/lib/systemd/system/pplcounter.service
usr/lib/tmpfiles.d/pplcounter.conf
usr/sbin/pplcounter
usr/share/doc/pplcounter/CHANGELOG.md
usr/share/doc/pplcounter/LICENSE
usr/share/doc/pplcounter/ZV318System.ini.example
usr/share/man/man1/pplctl.1
usr/share/man/man8/pplcounter.8
EOF2
check_archive display <<EOF2
usr/lib/cgi-bin/pplcounter-status
usr/share/doc/pplcounter/LICENSE
usr/share/pplcounter/occupancy.html
EOF2
check_archive tools <<EOF2
usr/bin/camsim
usr/include/pplcounter/Tarn3DPCAPIClient.h
usr/include/pplcounter/UBrandLAPIClient.h
usr/$libdir/libTarn3DPCAPIClient.so
usr/$libdir/libUBrandLAPIClient.so
usr/share/doc/pplcounter/LICENSE
usr/share/man/man1/camsim.1
EOF2

root=$work/root
grep -qx 'DAEMON=/usr/sbin/pplcounter' "$root/etc/init.d/pplcounter" || fail "init script not for /usr"
for program in usr/sbin/pplcounter usr/bin/pplctl usr/bin/camsim usr/lib/cgi-bin/pplcounter-status; do
    # Whole outputs into grep: with pipefail, grep -q ending early fails the pipe.
    ! readelf -S "$root/$program" | grep '\.symtab' >/dev/null || fail "$program is not stripped"
done
strings "$root/usr/sbin/pplcounter" | grep -x "pplcounter $version" >/dev/null ||
    fail "the service binary does not carry \"pplcounter $version\""
shown=$("$root/usr/bin/pplctl" --version)
[ "$shown" = "pplctl $version" ] || fail "pplctl --version says '$shown', project(VERSION) is $version"
shown=$("$root/usr/bin/camsim" --version)
[ "$shown" = "camsim $version" ] || fail "camsim --version says '$shown', project(VERSION) is $version"
echo "pplcounter $version, $arch: the three archives as listed, stripped, versions agree"
echo PASS
