#!/usr/bin/env bash
# A firmware image on an emulated ARM board: the armhf runtime and display
# components, staged with --strip, in a BusyBox initramfs with the checks'
# tools (camsim, pplctl), booted by Debian's armmp kernel under qemu-system-arm (no KVM)
# with BusyBox init as PID 1. rcS and inittab carry the lines of
# docs/integration.md as they stand. A dynamic image holds the runtime
# libraries docs/cross-compiling.md lists; a static one (PPL_STATIC) no C
# library at all apart from BusyBox's own static one. The image's BusyBox
# httpd serves the display in the layout of docs/display.md. The guest
# (guest/busybox-check.sh) prints one line per check and the verdict.
# Usage: busybox_boot_test.sh SOURCE_DIR ARMHF_BUILD BOARD_FILE dynamic|static
set -euo pipefail
src=$1 build=$2 board_file=$3 kind=$4
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=SCRIPTDIR/boot-common.sh
. "$here/boot-common.sh"
for tool in qemu-system-arm qemu-arm file arm-linux-gnueabihf-addr2line; do
    command -v "$tool" >/dev/null || fail "$tool is not installed (scripts/setup-deps installs it)"
done
kernel='' busybox=''
# shellcheck disable=SC1090 # written by prepare_arm_board.sh
. "$board_file" || fail "no prepared board (boot.arm_board)"

work=$(mktemp -d -p /var/tmp ppl-arm-boot.XXXXXX)
trap 'rm -rf "$work"' EXIT
img=$work/image
DESTDIR=$img cmake --install "$build" --prefix /usr --component runtime --strip >/dev/null
DESTDIR=$img cmake --install "$build" --prefix /usr --component display --strip >/dev/null
# The checks' tools.
DESTDIR=$img cmake --install "$build" --prefix /usr --component tools --strip >/dev/null
rm -rf "$img/usr/include" "$img/usr/share/man"

if [ "$kind" = dynamic ]; then
    libs=$(doc_block "armhf runtime libraries" "$src/docs/cross-compiling.md")
    [ -n "$libs" ] || fail "no armhf runtime library list in docs/cross-compiling.md"
    for lib in $libs; do
        mkdir -p "$img$(dirname "$lib")"
        cp -L "/usr/arm-linux-gnueabihf/lib/$(basename "$lib")" "$img$lib"
    done
else
    shared=$(cd "$img" && find . -name '*.so*' -o -name 'ld-linux*')
    [ -z "$shared" ] || fail "shared libraries in the static image: $shared"
    echo "image: no shared library and no loader in it"
    for program in usr/sbin/pplcounter usr/bin/pplctl usr/bin/camsim usr/lib/cgi-bin/pplcounter-status; do
        what=$(file -b "$img/$program")
        echo "image: $program: $what"
        [[ "$what" == *"statically linked"* ]] || fail "$program is not statically linked"
    done
fi

mkdir -p "$img/bin" "$img/proc" "$img/sys" "$img/dev" "$img/tmp" "$img/run" "$img/var/log" \
    "$img/opt/user/ZV318/INIT" "$img/etc/default" "$img/usr/local/lib/ppl-boot"
cp "$busybox" "$img/bin/busybox"
for applet in $(qemu-arm "$img/bin/busybox" --list-full); do
    [ -e "$img/$applet" ] || { mkdir -p "$img/$(dirname "$applet")" && ln -s /bin/busybox "$img/$applet"; }
done
ln -s ../run "$img/var/run"
cp "$here/guest/checks.sh" "$here/guest/busybox-check.sh" "$img/usr/local/lib/ppl-boot/"
example_for_camsim "$img/usr/share/doc/pplcounter/ZV318System.ini.example" \
    >"$img/opt/user/ZV318/INIT/ZV318System.ini"
# The display's web server set up as docs/display.md has it.
doc_block "BusyBox httpd layout" "$src/docs/display.md" >"$img/usr/local/lib/ppl-boot/display-layout.sh"
doc_block "BusyBox httpd.conf" "$src/docs/display.md" >"$img/etc/httpd.conf"
if [ ! -s "$img/usr/local/lib/ppl-boot/display-layout.sh" ] || [ ! -s "$img/etc/httpd.conf" ]; then
    fail "no BusyBox httpd layout or httpd.conf block in docs/display.md"
fi
# A small log cap, so that the log rotates while the cameras walk.
echo PPLCOUNTER_LOG_MAX=8192 >"$img/etc/default/pplcounter"

rcs_line=$(doc_block "rcS line" "$src/docs/integration.md")
inittab_lines=$(doc_block "inittab lines" "$src/docs/integration.md")
if [ -z "$rcs_line" ] || [ -z "$inittab_lines" ]; then
    fail "no rcS or inittab block in docs/integration.md"
fi
cat >"$img/etc/init.d/rcS" <<EOF2
#!/bin/sh
# The board's own start-up: file systems, loopback, host name.
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
mount -t tmpfs -o mode=1777 tmpfs /tmp
mount -t tmpfs -o mode=0755 tmpfs /run
ip link set lo up
hostname recorder
$rcs_line
EOF2
chmod 755 "$img/etc/init.d/rcS"
cat >"$img/etc/inittab" <<EOF2
$inittab_lines
::once:/bin/sh -c '/usr/local/lib/ppl-boot/busybox-check.sh run; poweroff'
::shutdown:/usr/local/lib/ppl-boot/busybox-check.sh after-power-off
EOF2
(cd "$img" && find . | busybox cpio -o -H newc -R 0:0 2>/dev/null) >"$work/initramfs.cpio"
echo "image: $kind, $(($(stat -c %s "$work/initramfs.cpio") / 1024)) KiB, kernel $(basename "$kernel")"

start=$SECONDS
timeout 600 qemu-system-arm -M virt,highmem=off -cpu cortex-a15 -m 256 -nic none \
    -display none -monitor none -serial "file:$work/console.log" -no-reboot \
    -kernel "$kernel" -initrd "$work/initramfs.cpio" \
    -append "console=ttyAMA0 rdinit=/sbin/init panic=1 quiet" </dev/null || true
echo "boot, checks and power-off took $((SECONDS - start)) s"
report "$work/console.log"

# The stack trace's frames: names in a dynamic program (its exported
# symbols), bare addresses in a static one, which addr2line resolves
# against the unstripped binary of the build.
trace=$(tr -d '\r' <"$work/console.log" | sed -n 's/^stack trace: //p')
echo "stack trace: $trace"
names=$trace
if [ "$kind" = static ]; then
    # shellcheck disable=SC2046 # one argument per address
    names=$(arm-linux-gnueabihf-addr2line -f -C -e "$build/pplcounter" \
        $(grep -oE '0x[0-9a-f]+' <<<"$trace") | sed -n '1~2p' | paste -sd'<' | sed 's/</ < /g')
    echo "stack trace resolved by addr2line: $names"
fi
[[ "$names" == *"NSysVMsgQ::open(int)"*"PPLCounter::Init()"* ]] ||
    fail "the service's first stack trace does not name NSysVMsgQ::open and PPLCounter::Init: $names"
