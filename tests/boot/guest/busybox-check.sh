#!/bin/sh
# The checks of the firmware image on the emulated ARM board, run by BusyBox
# init: "run" once rcS has started the service with the documented line,
# "after-power-off" as the last shutdown action, after the documented stop.
# The service is watched as the recorder's other modules see it.
# Usage: busybox-check.sh run|after-power-off
set -u
# shellcheck source=SCRIPTDIR/checks.sh
. "$(dirname "$0")/checks.sh"
log=/var/log/pplcounter.log
cap=$(sed -n 's/^PPLCOUNTER_LOG_MAX=//p' /etc/default/pplcounter)
cams=/run/ppl-boot/camsim.log
idle_cams=/run/ppl-boot/camsim-idle.log

# The service by its program: the supervisor, a script of the same name,
# would match by name.
service_pid() {
    for exe in /proc/[0-9]*/exe; do
        if [ "$(readlink "$exe")" = /usr/sbin/pplcounter ]; then
            pid=${exe#/proc/}
            echo "${pid%/exe}"
            return 0
        fi
    done
    return 1
}
service_runs() { service_pid >/dev/null; }
started_again() { pid=$(service_pid) && [ "$pid" != "$1" ]; }
# The last totals camsim sent: "in out" of the in camera (8001) and the out
# camera (8002).
last_total() {
    grep "127.0.0.1:$1\] event to" "$cams" | tail -n 1 | sed -n "s/.*\"$2\":\([0-9]*\).*/\1/p"
}
totals_match() {
    [ "$(status_key PPL.In0.Count)" = "$(last_total 8001 TotalIn)" ] &&
        [ "$(status_key PPL.Out0.Count)" = "$(last_total 8002 TotalOut)" ]
}
under_cap() {
    for f in "$log" "$log.1"; do
        [ "$(wc -c <"$f")" -le "$cap" ] || return 1
    done
}
# The service's CPU time in clock ticks (user and system).
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
# The frames of the first stack trace the service logged, one line, for the
# host to compare with the binary it built.
first_trace() {
    awk '/Stack Trace:/ { on = 1; next }
         on && !/\[0x[0-9a-f]+\]$/ { exit }
         on { sub(/^pplcounter\[[0-9]+\]: /, ""); printf "%s | ", $0 }' "$log"
}

run() {
    echo "boot: $(uname -m), kernel $(uname -r), up $(cut -d' ' -f1 /proc/uptime) s"
    check "rcS started pplcounter under the init script's supervisor" wait_for 60 service_runs ||
        give_up
    check "the init script says it runs" sh -c '/etc/init.d/pplcounter status | grep -q "is running"'
    wait_for 30 grep -q 'Stack Trace:' "$log"
    echo "stack trace: $(first_trace)"

    start_event_reader
    camsim --lapi 8001 --lapi 8002 --rate 600 --seconds 20 --verbose >"$cams" 2>&1 &
    walkers=$!
    t0=$(uptime_cs)
    wait_for 60 subscriptions 1 "$cams"
    check "both cameras subscribed ($(seconds_since "$t0") s after they started)" subscriptions 1 "$cams" ||
        give_up
    check "both cameras connected (status file and pplctl status)" wait_for 30 cameras_connected
    check "count events on queue 259" wait_for 30 count_events_after 0
    check_doctor
    wait "$walkers"
    check "the status file's counts equal the cameras' last totals (in $(last_total 8001 TotalIn), out $(last_total 8002 TotalOut))" \
        wait_for 30 totals_match
    check_display
    check "the log rotated and under its cap of $cap bytes ($(wc -c <"$log") and $(wc -c <"$log.1" 2>/dev/null) bytes)" \
        under_cap

    # Cameras connected, nobody walking: the service idles.
    camsim --lapi 8001 --lapi 8002 --rate 0 --verbose >"$idle_cams" 2>&1 &
    check "both cameras subscribed again" wait_for 60 subscriptions 1 "$idle_cams"
    old=$(service_pid)
    kill -9 "$old"
    t0=$(uptime_cs)
    if wait_for 30 started_again "$old"; then
        pass "kill -9 answered by the supervisor: a new pplcounter after $(seconds_since "$t0") s"
    else
        fail "kill -9 answered by the supervisor" "no new pplcounter"
    fi
    check "both cameras subscribed after the restart" wait_for 60 subscriptions 2 "$idle_cams"
    pid=$(service_pid)
    ticks=$(cpu_ticks "$pid")
    t0=$(uptime_cs)
    sleep 10
    ticks=$(($(cpu_ticks "$pid") - ticks))
    cs=$(($(uptime_cs) - t0))
    # Clock ticks are hundredths of a second too: per mille of one CPU.
    permille=$((ticks * 1000 / cs))
    # Bounded only against a spinning loop; the figure is what counts.
    rss=$(sed -n 's/^VmRSS:[[:space:]]*//p' "/proc/$pid/status")
    check "idle CPU over $((cs / 100)) s: $((permille / 10)).$((permille % 10)) % ($ticks ticks), resident $rss" \
        [ "$permille" -lt 500 ]
}

# The door display as docs/display.md sets it up, served by the image's
# BusyBox httpd: its answer against the status file, and what one costs.
display=http://127.0.0.1/cgi-bin/pplcounter-status
answer=/run/ppl-boot/display.json
# A top-level key of the answer (the cameras' object left out), as written.
json_key() { sed -e 's/"cameras":{[^}]*}//' -e "s/.*\"$1\":\([^,}]*\).*/\1/" "$answer"; }
# "true" when the status file's key holds the word, else "false".
key_is() { if [ "$(status_key "$1")" = "$2" ]; then echo true; else echo false; fi; }
display_matches() {
    wget -q -O "$answer" "$display" || return 1
    [ "$(json_key state)" = '"ok"' ] && [ "$(json_key enabled)" = true ] &&
        [ "$(json_key in)" = "$(status_key PPL.In0.Count)" ] &&
        [ "$(json_key out)" = "$(status_key PPL.Out0.Count)" ] &&
        [ "$(json_key stayin)" = "$(status_key PPL.StayIn0.Count)" ] &&
        [ "$(json_key over)" = "$(status_key PPL.StayIn0.Over)" ] &&
        [ "$(json_key under)" = "$(status_key PPL.StayIn0.Under)" ] &&
        [ "$(json_key over_alarm)" = "$(key_is PPL.StayIn0.Status Over)" ] &&
        grep -q "\"cameras\":{\"in\":$(key_is PPL.In0.Status connect),\"out\":$(key_is PPL.Out0.Status connect)}}" "$answer"
}
live_headers() {
    headers=$(wget -S -q -O /dev/null "$display" 2>&1)
    echo "$headers" | grep -q "HTTP/1.1 200 OK" && echo "$headers" | grep -q "Cache-Control: no-store"
}
# Milliseconds per run of a command, over 20 runs.
ms_each() {
    t0=$(uptime_cs)
    for _ in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do "$@" >/dev/null 2>&1; done
    echo $((($(uptime_cs) - t0) * 10 / 20))
}
check_display() {
    check "the display's web server set up as documented" sh -e /usr/local/lib/ppl-boot/display-layout.sh
    httpd -p 80 -h /www -c /etc/httpd.conf
    if wait_for 10 display_matches; then
        pass "the display's answer equals the status file: $(cat "$answer")"
    else
        fail "the display's answer equals the status file" \
            "$(cat "$answer" 2>/dev/null) against $(tr '\n' ' ' </tmp/PPLCounter.ini)"
    fi
    check "the display's answer: 200, not to be cached" live_headers
    cgi=$(ms_each env REQUEST_METHOD=GET /usr/lib/cgi-bin/pplcounter-status)
    served=$(ms_each wget -q -O /dev/null "$display")
    # Bounded only against a hang; the figures are what count.
    check "display cost: $cgi ms the program alone, $served ms a request through httpd (wget included)" \
        [ "$served" -lt 5000 ]
}

stopped_cleanly() {
    ! service_runs && cat "$log.1" "$log" 2>/dev/null | grep -q 'PPLCounter::Run(), receive interrupt.'
}

after_power_off() {
    # The documented shutdown line has stopped the service by now.
    check "poweroff ended the service cleanly (\"receive interrupt\" in its log)" \
        stopped_cleanly
    verdict
}

case "${1:-}" in
    run) run ;;
    after-power-off) after_power_off ;;
    *) echo "usage: $0 run|after-power-off" >&2; exit 2 ;;
esac
