#!/usr/bin/env bash
# The installed init script as a recorder runs it: BusyBox sh with only BusyBox
# applets on PATH, in private namespaces, starting the installed binary beside
# it. Process id files naming an unrelated live process, a log path that is a
# link, a log or process id directory another user may write, start, status, a
# killed service started again (with a stamped note), a log kept under its cap
# while cameras send events fast, another user's forged del_camera (refused,
# also after a restart), a log directory that became shared (the next rotation
# reopens nothing), stop, and stop of a service that ignores SIGTERM.
# Usage: initscript_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2

fail() { echo "FAIL: $*"; exit 1; }

if [ "${3:-}" != inside ]; then
    # shellcheck source=tests/support/namespaces.sh
    . "$(dirname "$0")/../support/namespaces.sh"
    require_namespaces
    command -v busybox >/dev/null || fail "busybox is not installed (scripts/setup-deps installs it)"
    stage=$build/initscript-stage
    rm -rf "$stage"
    # Staged as for a firmware image (the runtime component), with the prefix
    # /mnt/ppl so that the namespace can put it in place; the simulator apart.
    DESTDIR=$stage cmake --install "$build" --prefix /mnt/ppl --component runtime >/dev/null
    DESTDIR=$stage cmake --install "$build" --prefix /mnt/tools --component tools >/dev/null
    exec "$build/tests/support/pplsandbox" "$0" "$src" "$build" inside
fi

# In the sandbox: the build tree is PPL_BUILD, /tmp and /opt are fresh.
stage=$PPL_BUILD/initscript-stage
mount -t tmpfs tmpfs /mnt
mkdir -p /mnt/ppl /mnt/tools
# Not canonicalized: the build tree's path may lie under the covered /tmp.
mount --no-canonicalize --bind "$stage/mnt/ppl" /mnt/ppl
mount --no-canonicalize --bind "$stage/mnt/tools" /mnt/tools
# The service and the tools must find the staged libraries, not the build's.
unset LD_LIBRARY_PATH
mkdir -p /tmp/bb /tmp/run /tmp/log
busybox --install -s /tmp/bb
"$PPL_BUILD/tests/support/pplsandbox" --config 8001 8002 >/opt/user/ZV318/INIT/ZV318System.ini

cap=16384
initd() {
    env -i PATH=/tmp/bb PPLCOUNTER_RUNDIR="${RUNDIR:-/tmp/run}" PPLCOUNTER_LOG="${LOG:-/tmp/log/pplcounter.log}" \
        PPLCOUNTER_LOG_MAX="${LOG_CAP:-$cap}" /tmp/bb/sh /mnt/ppl/etc/init.d/pplcounter "$@"
}
# Waits up to $1 tenths of a second for the command that follows to succeed.
wait_for() {
    local tenths=$1
    shift
    for _ in $(seq "$tenths"); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}
service_pid() { cat /tmp/run/pplcounter.child.pid 2>/dev/null; }
alive() { [ -n "$(service_pid)" ] && kill -0 "$(service_pid)" 2>/dev/null; }

# Gone, or a zombie that nobody has reaped yet.
ended() {
    local state
    state=$(sed -n 's/^State:[[:space:]]*\(.\).*/\1/p' "/proc/$1/status" 2>/dev/null)
    [ -z "$state" ] || [ "$state" = Z ]
}
# The supervisor's child is a shell until it has exec'd the service.
runs_binary() { [ "$(readlink "/proc/$(service_pid)/exe")" = /mnt/ppl/sbin/pplcounter ]; }

sim="" other=""
trap 'kill "$sim" "$other" 2>/dev/null; initd stop >/dev/null 2>&1 || true' EXIT

# Left from before a reboot: the files name a process id that now belongs to
# an unrelated program (BusyBox, like the supervisor's shell).
/tmp/bb/sleep 600 &
other=$!
stale() { echo "$other" >/tmp/run/pplcounter.pid; echo "$other" >/tmp/run/pplcounter.child.pid; }
stale
[ "$(initd status)" = "pplcounter is not running" ] || fail "status with stale process id files"
[ "$(initd stop)" = "pplcounter is not running" ] || fail "stop with stale process id files"
kill -0 "$other" || fail "stop killed the unrelated process"
stale

ln -s /tmp/log/elsewhere /tmp/log/pplcounter.log
[ "$(initd start 2>&1)" = "pplcounter: refusing the log /tmp/log/pplcounter.log: it is a symbolic link" ] ||
    fail "a log path that is a link was not refused"
[ ! -e /tmp/log/elsewhere ] || fail "the link's target was created"
rm /tmp/log/pplcounter.log

# Root writes the log and the process id files by name: a directory another
# user may write (sticky /tmp included) is refused, and a link put in one is
# never written through.
as_other() { setpriv --reuid=65534 --regid=65534 --clear-groups "$@"; }
echo secret >/tmp/secret && chmod 600 /tmp/secret
[ "$(LOG=/tmp/pplcounter.log initd start 2>&1)" = \
    "pplcounter: refusing the log /tmp/pplcounter.log: /tmp may be written by other users than root" ] ||
    fail "a log in /tmp was not refused"
as_other sh -c 'mkdir /tmp/theirs && ln -s /tmp/secret /tmp/theirs/pplcounter.pid'
[ "$(RUNDIR=/tmp/theirs initd start 2>&1)" = \
    "pplcounter: refusing the process id directory /tmp/theirs: /tmp/theirs belongs to user 65534" ] ||
    fail "another user's process id directory was not refused: $(RUNDIR=/tmp/theirs initd start 2>&1)"
[ "$(cat /tmp/secret)" = secret ] || fail "a process id was written through a link"

[ "$(initd start)" = "pplcounter started" ] || fail "start"
wait_for 50 alive || fail "the service did not start"
wait_for 20 runs_binary ||
    fail "the script started $(readlink "/proc/$(service_pid)/exe"), not the binary beside it"
initd status | grep -qx "pplcounter is running" || fail "status while running"
[ "$(initd start)" = "pplcounter is already running" ] || fail "a second start"

first=$(service_pid)
kill -9 "$first"
start=$(date +%s%N)
# No camera runs yet, so the service logs little and the note stays in the
# log long enough to be seen, however slow the machine. It is stamped as the
# service's own lines are.
restart_logged() {
    grep -Eqs '^\[[A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}\] pplcounter: ended with status 137; starting it again$' \
        /tmp/log/pplcounter.log.1 /tmp/log/pplcounter.log
}
wait_for 30 restart_logged ||
    fail "the restart was not logged; the log ends: $(tail -c 600 /tmp/log/pplcounter.log)"
replaced() { [ "$(service_pid)" != "$first" ]; }
replaced_by_another() { [ -n "$(service_pid)" ] && [ "$(service_pid)" != "$previous" ] && runs_binary; }
wait_for 30 replaced ||
    fail "a killed service was not started again"
wait_for 30 alive || fail "the restarted service is not running"
echo "restarted $(( ($(date +%s%N) - start) / 1000000 )) ms after kill -9"

# Cameras send about 100 events a second between them; the service logs each.
# Watched over three rotations: neither file ever holds more than the cap.
/mnt/tools/bin/camsim --lapi 8001 --lapi 8002 --rate 3000 >/dev/null 2>&1 &
sim=$!
log=/tmp/log/pplcounter.log
rotations=0 last_old=""
for _ in $(seq 300); do
    size=$({ wc -c <"$log"; } 2>/dev/null || echo 0)
    old=$({ wc -c <"$log.1"; } 2>/dev/null || echo 0)
    [ "$size" -le "$cap" ] || fail "log over its cap: $size bytes"
    [ "$old" -le "$cap" ] || fail "previous log over its cap: $old bytes"
    inode=$(stat -c %i "$log.1" 2>/dev/null || true)
    if [ -n "$inode" ] && [ "$inode" != "$last_old" ]; then
        rotations=$((rotations + 1)) last_old=$inode
    fi
    [ "$rotations" -ge 3 ] && break
    sleep 0.1
done
[ "$rotations" -ge 3 ] || fail "the log was rotated $rotations times in 30 s"
echo "log $size bytes, previous $old bytes, cap $cap, over $rotations rotations"

# Queue 601 is narrowed before and after each start of the service: another
# user cannot send a forged del_camera, nor after the service was restarted.
in_connected() { /mnt/ppl/bin/pplctl status 2>/dev/null | grep -qx "in camera:  connect"; }
for round in start restart; do
    wait_for 50 in_connected || fail "$round: camera 0 is not connected"
    out=$(as_other /mnt/ppl/bin/pplctl camera del 0 2>&1) && fail "$round: another user's del_camera was sent"
    sleep 0.5
    in_connected || fail "$round: another user's del_camera disconnected camera 0"
    echo "$round: another user's del_camera refused ($out)"
    previous=$(service_pid)
    kill -TERM "$previous"
    wait_for 30 replaced_by_another || fail "the service ended by SIGTERM was not started again"
done

# A log directory that another user may write from now on: the next rotation
# opens nothing there, so a link put at the path is never written through.
wait_for 100 in_connected || fail "the restarted service's camera 0 is not connected"
chmod 1777 /tmp/log
wait_for 300 sh -c "[ ! -e $log ]" || fail "no rotation in 30 s left the log path free"
sleep 0.5
[ ! -e "$log" ] || fail "the log was opened again in a directory others may write"
as_other ln -s /tmp/secret "$log"
sleep 1
[ "$(cat /tmp/secret)" = secret ] || fail "the log writer wrote through another user's link"
rm "$log" && chmod 755 /tmp/log

# A log that cannot be written is refused at start, before anything runs.
[ "$(initd stop)" = "pplcounter stopped" ] || fail "stop before the log checks"
[ "$(LOG=/tmp/log/missing/pplcounter.log initd start 2>&1)" = \
    "pplcounter: cannot write the log /tmp/log/missing/pplcounter.log" ] ||
    fail "a log that cannot be written was not refused"
initd status >/dev/null && fail "started with a log that cannot be written"

# A log path that is a device (an integrator's /dev/null, a console) is
# written as it is: a rotation would move the device node itself. Root makes
# one on a file system that allows devices; elsewhere /dev/null is bound onto
# a file (which cannot be moved, so only root's run would see a rotation).
dev=/tmp/devlog/null
mkdir /tmp/devlog
if mount -t tmpfs -o dev,mode=0755 tmpfs /tmp/devlog 2>/dev/null && mknod -m 600 "$dev" c 1 3 2>/dev/null; then
    :
else
    { : >"$dev" && mount --bind /dev/null "$dev"; } || fail "no device can be put at $dev"
fi
[ "$(LOG=$dev LOG_CAP=512 initd start)" = "pplcounter started" ] || fail "start with a device log"
wait_for 50 runs_binary || fail "the service did not start with a device log"
# Sixteen times the cap written, through the log writer to the device.
written() { [ "$(sed -n 's/^wchar: //p' "/proc/$(service_pid)/io" 2>/dev/null)" -gt 8192 ] 2>/dev/null; }
wait_for 100 written || fail "the service wrote too little to its device log"
if [ ! -c "$dev" ] || [ -e "$dev.1" ]; then fail "the device log was rotated: $(ls -l "$dev"*)"; fi

last=$(service_pid) supervisor=$(cat /tmp/run/pplcounter.pid)
[ "$(initd stop)" = "pplcounter stopped" ] || fail "stop"
initd status >/dev/null && fail "status after stop"
# Other tests may run services of their own: only these two must be gone.
ended "$last" || fail "the service still runs after stop"
ended "$supervisor" || fail "the supervisor still runs after stop"

# A service that does not end on SIGTERM (stopped here) gets SIGKILL after
# the grace period; the process id file stays until it has ended.
[ "$(initd start)" = "pplcounter started" ] || fail "start after stop"
wait_for 50 runs_binary || fail "the service did not start again"
last=$(service_pid)
kill -STOP "$last"
initd stop >/tmp/stop.out &
stopper=$!
while kill -0 "$stopper" 2>/dev/null; do
    # The file is looked at first: once it is gone the service must be too.
    if [ ! -f /tmp/run/pplcounter.pid ] && ! ended "$last"; then
        fail "the process id file went while the service still ran"
    fi
    sleep 0.1
done
wait "$stopper" || fail "stop of a stopped service failed: $(cat /tmp/stop.out)"
[ "$(cat /tmp/stop.out)" = "pplcounter stopped" ] || fail "stop: $(cat /tmp/stop.out)"
ended "$last" || fail "SIGKILL did not follow"
kill -0 "$other" || fail "an unrelated process was killed"
echo PASS
