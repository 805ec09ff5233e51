#!/usr/bin/env bash
# Each pplctl subcommand once against the real service and simulated cameras.
# Runs inside private namespaces, which it enters itself.
set -uo pipefail
if [ "${3:-}" != inside ]; then
    # shellcheck source=tests/support/namespaces.sh
    . "$(dirname "$0")/../support/namespaces.sh"
    require_namespaces
    exec "$2/tests/support/pplsandbox" "$0" "$1" "$2" inside
fi
# $1, the source directory, is not needed here; PPL_BUILD is the build tree
# as seen under the sandbox's /tmp.
build=$PPL_BUILD
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
# Polls the command every 0.1 s for up to 5 s until it succeeds.
wait_until() {
    for _ in $(seq 50); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    return 1
}
both_connected() {
    grep -q "PPL.In0.Status = connect" /tmp/PPLCounter.ini &&
        grep -q "PPL.Out0.Status = connect" /tmp/PPLCounter.ini
}
out_disconnected() { "$ctl" status | grep -qE "out camera: +disconnect"; }

check help 0 "camera add N" -- "$ctl" --help

"$build/tests/support/pplsandbox" --config 8101 8102 \
    SERV_PPL_CAM_0_PASSWORD=admin SERV_PPL_CAM_1_PASSWORD=admin >/opt/user/ZV318/INIT/ZV318System.ini
"$build/camsim" --lapi 8101 --lapi 8102 --rate 600 >/tmp/camsim.log 2>&1 &
sim=$!
"$ctl" events --seconds 4 >/tmp/events.out 2>/tmp/events.err &
events=$!
# Queue 259 (0x103) exists once the events reader has made it.
wait_until bash -c 'ipcs -q | grep -q 0x00000103'
"$build/pplcounter" >/tmp/svc.out 2>/tmp/svc.err &
svc=$!
wait_until both_connected

check status 0 "in camera: +connect" -- "$ctl" status
check reload 0 "reload requested" -- "$ctl" reload
check reset 0 "the cameras get the enable request within 5 s" -- "$ctl" reset
check clear 0 "counts cleared" -- "$ctl" clear
check send-ok 0 "^reply=success&in0=connect&out0=connect$" -- "$ctl" send "action=ppl_get_service_status"
check send-error 1 "^reply=error$" -- "$ctl" send "action=nonsense"
check camera-del 0 "sent event=del_camera&ch=1" -- "$ctl" camera del 1
wait_until out_disconnected
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
