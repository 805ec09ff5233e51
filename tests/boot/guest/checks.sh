# Sourced by the boot tests' guest scripts (POSIX sh; BusyBox applets are
# enough). Each check prints one line on the console, "check: WHAT ... ok"
# or "check: WHAT ... FAILED: WHY", and is kept in $results, so that a later
# process of the same boot can print the verdict line the host reads.
# shellcheck shell=sh

results=/run/ppl-boot/results
mkdir -p /run/ppl-boot

record() {
    echo "$1" >>"$results"
    echo "$1"
}
pass() { record "check: $1 ... ok"; }
fail() {
    record "check: $1 ... FAILED${2:+: $2}"
    return 1
}
# check WHAT COMMAND [ARG...]: passes when the command succeeds.
check() {
    what=$1
    shift
    if "$@"; then pass "$what"; else fail "$what"; fi
}
# pplctl doctor as integrators run it on the recorder: every check passes
# (else the lines that did not, in the check's line).
check_doctor() {
    if out=$(pplctl doctor 2>&1); then
        pass "pplctl doctor: ${out##*doctor: }"
    else
        fail "pplctl doctor" "$(echo "$out" | grep -v '^ok ' | tr '\n' '|')"
    fi
}
# After a check that the rest depend on: the verdict now.
give_up() {
    verdict
    exit 1
}

# "verdict: PASS (N checks)" only when there were checks and none failed.
verdict() {
    total=$(grep -c '^check: ' "$results" 2>/dev/null) || total=0
    failed=$(grep -c '^check: .* FAILED' "$results" 2>/dev/null) || failed=0
    if [ "$total" -gt 0 ] && [ "$failed" -eq 0 ]; then
        echo "verdict: PASS ($total checks)"
    else
        echo "verdict: FAIL ($failed of $total checks failed)"
    fi
}

# Hundredths of a second since boot (/proc/uptime has two decimals).
uptime_cs() {
    read -r up _ </proc/uptime
    echo $((${up%.*} * 100 + 1${up#*.} - 100))
}
# seconds_since CS: the time since uptime_cs said CS, as seconds with one decimal.
seconds_since() {
    cs=$(($(uptime_cs) - $1))
    echo "$((cs / 100)).$((cs % 100 / 10))"
}
# wait_for SECONDS COMMAND [ARG...]: polls every 0.2 s until the command
# succeeds; fails once SECONDS have passed.
wait_for() {
    deadline=$(($(uptime_cs) + $1 * 100))
    shift
    until "$@"; do
        [ "$(uptime_cs)" -lt "$deadline" ] || return 1
        sleep 0.2
    done
}

# The service as the recorder's other modules see it: the status file, the
# command socket (through pplctl) and queue 259, read by pplctl events as the
# module that owns it.
events=/run/ppl-boot/events.log
start_event_reader() { pplctl events >"$events" 2>&1 & }
status_key() { sed -n "s/^$1 = //p" /tmp/PPLCounter.ini 2>/dev/null; }
cameras_connected() {
    out=$(pplctl status 2>&1) &&
        echo "$out" | grep -qx 'in camera:  connect' && echo "$out" | grep -qx 'out camera: connect' &&
        [ "$(status_key PPL.In0.Status)" = connect ] && [ "$(status_key PPL.Out0.Status)" = connect ]
}
# count_events_after N: a count event with people in it after line N of $events.
count_events_after() {
    tail -n "+$(($1 + 1))" "$events" 2>/dev/null | grep -q 'event=ppl_count&in0=[1-9]'
}
event_lines() {
    n=$(grep -c . "$events" 2>/dev/null)
    echo "${n:-0}"
}
# subscriptions N LOG: both cameras of camsim's LOG took N subscriptions each.
subscriptions() {
    for port in 8001 8002; do
        got=$(grep -c "127.0.0.1:$port\] request POST /LAPI/V1.0/System/Event/Subscription" "$2")
        [ "$got" -ge "$1" ] || return 1
    done
}
