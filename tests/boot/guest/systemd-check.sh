#!/bin/sh
# The checks of the systemd boot, run by ppl-boot-check.service once the
# booted root has reached its default target. The unit is enabled and started
# as docs/integration.md tells integrators, then watched as the recorder's
# other modules see the service. Ends with the verdict line; the check unit
# then powers the container off.
# Usage: systemd-check.sh with-opt-user|without-opt-user
set -u
exec >/dev/console 2>&1
# shellcheck source=SCRIPTDIR/checks.sh
. "$(dirname "$0")/checks.sh"
variant=$1
config=/opt/user/ZV318/INIT/ZV318System.ini
# The installed example, pointed at the checks' cameras (systemd_boot_test.sh).
example=$(dirname "$0")/ZV318System.ini

main_pid() { systemctl show -p MainPID --value pplcounter; }
unit_value() { systemctl show -p "$1" --value pplcounter; }
active() { [ "$(systemctl is-active pplcounter)" = active ]; }
answering() { active && pplctl status >/dev/null 2>&1; }
# The last line of the service itself, else the last line about its unit.
last_journal_line() {
    line=$(journalctl _SYSTEMD_UNIT=pplcounter.service -o cat --no-pager -n 1 2>/dev/null)
    [ -n "$line" ] || line=$(journalctl -u pplcounter -o cat --no-pager -n 1 2>/dev/null)
    echo "$line"
}
# started_again OLD_PID: a new main process runs and answers.
started_again() { pid=$(main_pid) && [ "$pid" != 0 ] && [ "$pid" != "$1" ] && answering; }
receive_interrupt() {
    journalctl -u pplcounter -o cat --no-pager | grep -q 'PPLCounter::Run(), receive interrupt.'
}
removed() { [ ! -e /tmp/SI_PPLCOUNTER ] && ! ipcs -q | grep -q '^0x00000259 '; }

echo "boot: $variant, systemd $(systemctl --version | sed -n '1s/^systemd \([0-9]*\).*/\1/p')"
check "tmpfiles.d made /opt/user/ZV318/INIT at boot" test -d /opt/user/ZV318/INIT
[ "$variant" = without-opt-user ] || cp "$example" "$config"
start_event_reader
camsim --lapi 8001 --lapi 8002 --rate 240 >/run/ppl-boot/camsim.log 2>&1 &

check "systemctl enable pplcounter" systemctl enable --quiet pplcounter
if systemctl start pplcounter && wait_for 30 answering && [ "$(unit_value NRestarts)" = 0 ]; then
    pass "systemctl start pplcounter, then is-active (answering, no restart)"
else
    fail "systemctl start pplcounter, then is-active (answering, no restart)" \
        "$(systemctl is-active pplcounter), $(unit_value NRestarts) restarts; journal: $(last_journal_line)"
    give_up
fi
if [ "$variant" = without-opt-user ]; then
    check "the service created the missing configuration" wait_for 10 test -f "$config"
    cp "$example" "$config"
    check "pplctl reload: the example configuration taken" pplctl reload
fi
check "both cameras connected (status file and pplctl status)" wait_for 60 cameras_connected
check "count events on queue 259" wait_for 30 count_events_after 0
check_doctor

# Bounded: a second service that did start would run until ended.
out=$(timeout 10 /usr/sbin/pplcounter 2>&1)
if [ $? -eq 1 ] && echo "$out" | grep -q 'another pplcounter is already running'; then
    pass "a second pplcounter started by hand is refused (one instance lock for both)"
else
    fail "a second pplcounter started by hand is refused (one instance lock for both)" "$out"
fi

old=$(main_pid)
seen=$(event_lines)
t0=$(uptime_cs)
if [ "${old:-0}" -le 0 ]; then
    fail "kill -9 of the main PID: restarted" "no main process; $(systemctl is-active pplcounter)"
elif kill -9 "$old" && wait_for 30 started_again "$old"; then
    took=$(seconds_since "$t0")
    if [ "$(echo "$took" | cut -d. -f1)" -lt 3 ]; then
        pass "kill -9 of the main PID: restarted in $took s"
    else
        fail "kill -9 of the main PID: restarted in $took s" "not within about 2 s"
    fi
else
    fail "kill -9 of the main PID: restarted" "$(systemctl is-active pplcounter); journal: $(last_journal_line)"
fi
check "counting again after the restart" wait_for 60 count_events_after "$seen"

exposure=$(systemd-analyze security --no-pager pplcounter.service 2>&1 |
    sed -n 's/.*Overall exposure level for pplcounter.service: \([0-9.]*\).*/\1/p')
check "systemd-analyze security: exposure ${exposure:-unknown} (at most 2.0)" \
    awk -v e="${exposure:-99}" 'BEGIN { exit !(e <= 2.0) }'

systemctl stop pplcounter
check "systemctl stop: status $(unit_value ExecMainStatus), result $(unit_value Result)" \
    test "$(unit_value ExecMainStatus)/$(unit_value Result)" = 0/success
check "\"receive interrupt\" in the journal" wait_for 10 receive_interrupt
check "socket /tmp/SI_PPLCOUNTER and queue 601 removed" removed

if [ "$variant" = without-opt-user ]; then
    rm -rf /opt/user
    if systemctl start pplcounter && wait_for 30 answering; then
        pass "starts with /opt/user missing altogether (an optional path)"
    else
        fail "starts with /opt/user missing altogether (an optional path)" \
            "$(systemctl is-active pplcounter); journal: $(last_journal_line)"
    fi
    systemctl stop pplcounter
fi

verdict
