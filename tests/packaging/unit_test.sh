#!/usr/bin/env bash
# The installed systemd unit's own lines, run as systemd runs them, in private
# namespaces: its Environment= and EnvironmentFile= (the integrator's
# /etc/default/pplcounter), ExecStartPre=, ExecStart= and ExecStartPost= in
# that order, each under the unit's UMask=, empty capability bounding set and
# no new privileges. Another user's forged del_camera on queue 601 is refused,
# and so it stays after a restart, which runs the three lines again. (The
# boot tests run the unit under a real systemd, where pplctl doctor must find
# the queue narrowed.)
# Usage: unit_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2

fail() {
    echo "FAIL: $*"
    [ ! -f /tmp/service.log ] || tail -n 20 /tmp/service.log
    exit 1
}

if [ "${3:-}" != inside ]; then
    # shellcheck source=tests/support/namespaces.sh
    . "$(dirname "$0")/../support/namespaces.sh"
    require_namespaces
    stage=$build/unit-stage
    rm -rf "$stage"
    DESTDIR=$stage cmake --install "$build" --prefix /mnt/ppl --component runtime >/dev/null
    DESTDIR=$stage cmake --install "$build" --prefix /mnt/tools --component tools >/dev/null
    exec "$build/tests/support/pplsandbox" "$0" "$src" "$build" inside
fi

# In the sandbox: /tmp, /opt and /run are fresh; /etc/default is covered so
# that the integrator's file is this test's alone.
stage=$PPL_BUILD/unit-stage
mount -t tmpfs tmpfs /mnt
mkdir -p /mnt/ppl /mnt/tools
mount --no-canonicalize --bind "$stage/mnt/ppl" /mnt/ppl
mount --no-canonicalize --bind "$stage/mnt/tools" /mnt/tools
mount -t tmpfs tmpfs /etc/default
unset LD_LIBRARY_PATH
unit=/mnt/ppl/lib/systemd/system/pplcounter.service
"$PPL_BUILD/tests/support/pplsandbox" --config 8001 8002 >/opt/user/ZV318/INIT/ZV318System.ini
echo "PPLCOUNTER_QUEUE_MODE=0760" >/etc/default/pplcounter

setting() { sed -n "s/^$1=//p" "$unit"; }
# Environment= first; the file's assignments win, as in systemd.
for assignment in $(setting Environment); do export "${assignment?}"; done
env_file=$(setting EnvironmentFile)
[ "$env_file" = -/etc/default/pplcounter ] || fail "EnvironmentFile=$env_file"
set -a
# shellcheck disable=SC1091
. /etc/default/pplcounter
set +a
mask=$(setting UMask)
if [ -z "$mask" ] || [ -n "$(setting CapabilityBoundingSet)" ] || [ "$(setting NoNewPrivileges)" != yes ]; then
    fail "the unit's sandbox settings changed; this test runs its lines under them"
fi
# One Exec line in place of this (sub)shell: ${VAR} is the environment's.
exec_line() {
    eval "set -- ${1#-}"
    umask "$mask"
    exec setpriv --bounding-set=-all --inh-caps=-all --no-new-privs "$@"
}
# A leading "-" lets the line fail.
run_line() {
    (exec_line "$1") || [ "${1:0:1}" = - ] || fail "$1 failed"
}
start_unit() {
    run_line "$(setting ExecStartPre)"
    (exec_line "$(setting ExecStart)") >>/tmp/service.log 2>&1 &
    service=$!
    run_line "$(setting ExecStartPost)"
}
ctl() { /mnt/ppl/bin/pplctl "$@"; }
in_connected() { ctl status 2>/dev/null | grep -qx "in camera:  connect"; }
wait_for() {
    local tenths=$1
    shift
    for _ in $(seq "$tenths"); do "$@" && return 0; sleep 0.1; done
    return 1
}

sim=""
trap 'kill "$sim" "${service:-}" 2>/dev/null || true' EXIT
/mnt/tools/bin/camsim --lapi 8001 --lapi 8002 >/dev/null 2>&1 &
sim=$!
for round in start restart; do
    start_unit
    wait_for 100 in_connected || fail "$round: camera 0 is not connected"
    queue=$(ctl doctor | grep "queue 601") || true
    case $queue in
        "ok   queue 601: "*"mode 0760, group 0,"*) ;;
        *) fail "$round: queue 601 is not as /etc/default/pplcounter says: $queue" ;;
    esac
    out=$(setpriv --reuid=65534 --regid=65534 --clear-groups /mnt/ppl/bin/pplctl camera del 0 2>&1) &&
        fail "$round: another user's del_camera was sent: $out"
    sleep 0.5
    in_connected || fail "$round: camera 0 was disconnected"
    echo "$round: another user's del_camera refused ($out)"
    kill -TERM "$service"
    wait "$service" || fail "$round: the service ended with status $?"
done
echo PASS
