#!/usr/bin/env bash
# The systemd unit under a real systemd: a copy of the prepared Debian root
# (prepare_debian_root.sh) gets the staged install for prefix /usr and boots
# under systemd-nspawn, systemd as PID 1, on a private network. A check unit
# inside (guest/systemd-check.sh) enables and starts pplcounter and prints
# one line per check, then the verdict, on the console.
# Usage: systemd_boot_test.sh BUILD_DIR ROOT_FILE with-opt-user|without-opt-user
set -euo pipefail
build=$1 root_file=$2 variant=$3
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=SCRIPTDIR/boot-common.sh
. "$here/boot-common.sh"
[ "$(id -u)" -eq 0 ] || fail "systemd-nspawn needs root"
# shellcheck source=SCRIPTDIR/../support/namespaces.sh
. "$here/../support/namespaces.sh"
require_namespaces
command -v systemd-nspawn >/dev/null ||
    fail "systemd-nspawn is not installed (package systemd-container; scripts/setup-deps installs it)"
cached=$(cat "$root_file") || fail "no prepared root (boot.debian_root)"

work=$(mktemp -d -p /var/tmp ppl-systemd-boot.XXXXXX)
trap 'rm -rf "$work"' EXIT
root=$work/root
cp -a --reflink=auto "$cached" "$root"
# Both components: the service and its start-up files, and the tools the
# checks use (pplctl, camsim).
DESTDIR=$root cmake --install "$build" --prefix /usr >/dev/null
# A recorder's user partition, empty; the other root has none at all.
[ "$variant" = without-opt-user ] || mkdir -p "$root/opt/user"

guest=$root/usr/local/lib/ppl-boot
mkdir -p "$guest"
cp "$here/guest/checks.sh" "$here/guest/systemd-check.sh" "$guest/"
example_for_camsim "$root/usr/share/doc/pplcounter/ZV318System.ini.example" >"$guest/ZV318System.ini"
cat >"$root/etc/systemd/system/ppl-boot-check.service" <<EOF2
[Unit]
Description=pplcounter boot checks

[Service]
Type=oneshot
ExecStart=/usr/local/lib/ppl-boot/systemd-check.sh $variant
TimeoutStartSec=400
# However the checks end, the boot ends.
ExecStopPost=/bin/systemctl --no-block poweroff

[Install]
WantedBy=multi-user.target
EOF2
ln -s ../ppl-boot-check.service "$root/etc/systemd/system/multi-user.target.wants/"
# No login prompt: a getty starting on the console hangs up the checks' lines.
ln -s /dev/null "$root/etc/systemd/system/console-getty.service"

start=$SECONDS
# A name of its own: the boots of both roots may run at the same time.
timeout 600 systemd-nspawn --quiet --boot --directory="$root" --machine="ppl-$variant-$$" \
    --register=no --keep-unit --private-network --console=read-only </dev/null \
    >"$work/console.log" 2>&1 || true
echo "boot and checks took $((SECONDS - start)) s"
report "$work/console.log"
