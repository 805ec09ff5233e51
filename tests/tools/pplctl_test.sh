#!/usr/bin/env bash
# Each pplctl subcommand once against the real service and simulated cameras.
# Runs inside private namespaces, which it enters itself.
set -uo pipefail
if [ "${3:-}" != inside ]; then
    # shellcheck source=tests/support/namespaces.sh
    . "$(dirname "$0")/../support/namespaces.sh"
    require_namespaces
    exec unshare --ipc --mount --net --map-root-user "$0" "$1" "$2" inside
fi
# $1, the source directory, is not needed here.
# The build tree may live under /tmp: keep a handle on it before covering /tmp.
exec 3<"$2"
build=/proc/$$/fd/3
export LD_LIBRARY_PATH=$build
mount --make-rprivate /
mount -t tmpfs tmpfs /tmp
mount -t tmpfs tmpfs /opt
[ -e /dev/log ] && mount --bind /dev/null /dev/log
ip link set lo up
mkdir -p /opt/user/ZV318/INIT
failures=0
check() {  # check NAME EXPECTED_STATUS PATTERN -- command...
    local name=$1 want=$2 pattern=$3; shift 4
    local out status
    out=$("$@" 2>&1); status=$?
    if [ "$status" -ne "$want" ] || ! grep -qE -- "$pattern" <<<"$out"; then
        echo "FAIL $name: status $status (want $want), output:"; printf '%s\n' "$out" | sed 's/^/    /'
        failures=$((failures + 1))
    else
        echo "ok   $name"
    fi
}
ctl=$build/pplctl

check help 0 "camera add N" -- "$ctl" --help

cat >/opt/user/ZV318/INIT/ZV318System.ini <<INI
SERV_PPL_NUM=1
SERV_PPL_ENABLE=1
SERV_PPL_IN_0_CAM=0
SERV_PPL_OUT_0_CAM=1
SERV_PPL_STAYIN_0_OVER=50
SERV_PPL_STAYIN_0_UNDER=-5
SERV_PPL_SETTINGS_0_RESET_ENABLE=1
SERV_PPL_SETTINGS_0_RESET_TIME=1:2:3
SERV_PPL_SETTINGS_0_REPORT_INTERVAL=60
SERV_PPL_SETTINGS_0_SENSITIVITY=3
SERV_PPL_SETTINGS_0_CLEAR_COUNT=0
SERV_PPL_CAM_0_IP=127.0.0.1
SERV_PPL_CAM_0_HTTP=8101
SERV_PPL_CAM_0_USERNAME=admin
SERV_PPL_CAM_0_PASSWORD=admin
SERV_PPL_CAM_1_IP=127.0.0.1
SERV_PPL_CAM_1_HTTP=8102
SERV_PPL_CAM_1_USERNAME=admin
SERV_PPL_CAM_1_PASSWORD=admin
INI
"$build/camsim" --lapi 8101 --lapi 8102 --rate 600 >/tmp/camsim.log 2>&1 &
sim=$!
"$ctl" events --seconds 4 >/tmp/events.out 2>/tmp/events.err &
events=$!
# Queue 259 (0x103) exists once the events reader has made it.
for _ in $(seq 50); do ipcs -q | grep -q 0x00000103 && break; sleep 0.1; done
"$build/pplcounter" >/tmp/svc.out 2>/tmp/svc.err &
svc=$!
for _ in $(seq 50); do grep -q "PPL.Out0.Status = connect" /tmp/PPLCounter.ini 2>/dev/null && break; sleep 0.1; done

check status 0 "in camera: +connect" -- "$ctl" status
check reload 0 "reload requested" -- "$ctl" reload
check reset 0 "the cameras get the enable request within 5 s" -- "$ctl" reset
check clear 0 "counts cleared" -- "$ctl" clear
check send-ok 0 "^reply=success&in0=connect&out0=connect$" -- "$ctl" send "action=ppl_get_service_status"
check send-error 1 "^reply=error$" -- "$ctl" send "action=nonsense"
check camera-del 0 "sent event=del_camera&ch=1" -- "$ctl" camera del 1
for _ in $(seq 50); do "$ctl" status 2>&1 | grep -qE "out camera: +disconnect" && break; sleep 0.1; done
check camera-del-effect 0 "out camera: +disconnect" -- "$ctl" status
check camera-add 0 "sent event=add_camera&ch=1" -- "$ctl" camera add 1
check watch 0 "PPL.StayIn0.Count" -- "$ctl" watch --seconds 1
wait "$events"
check events 0 "event=ppl_count&in0=" -- cat /tmp/events.out
check events-enable 0 "event=ppl_enable&enable=1" -- cat /tmp/events.out

kill -TERM "$svc"; wait "$svc"; svc_status=$?
kill -TERM "$sim"; wait "$sim"
[ "$svc_status" -eq 0 ] || { echo "FAIL service ended with $svc_status"; failures=$((failures + 1)); }
if [ "$failures" -ne 0 ]; then echo "$failures failed"; exit 1; fi
echo PASS
