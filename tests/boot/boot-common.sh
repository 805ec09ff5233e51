# Sourced by the boot tests' host scripts. A boot test passes only on the
# verdict line its guest prints; an exit status of systemd-nspawn or QEMU
# says nothing (a kernel panic ends QEMU with 0 too).
# shellcheck shell=bash

fail() {
    echo "FAIL: $*"
    exit 1
}

# Where prepared roots, kernels and packages are kept between runs, outside
# the checkout: PPL_BOOT_CACHE, or /var/cache/pplcounter-boot (an ordinary
# user's own cache directory when not root).
boot_cache() {
    local dir=${PPL_BOOT_CACHE:-/var/cache/pplcounter-boot}
    [ "$(id -u)" -eq 0 ] || dir=${PPL_BOOT_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/pplcounter-boot}
    mkdir -p "$dir" || fail "cannot make the boot cache $dir"
    echo "$dir"
}

# The lines of the fenced block that follows the HTML comment beginning with
# MARKER in FILE, comment lines left out.
doc_block() {
    awk -v marker="<!-- $1" 'index($0, marker) == 1 { state = 1; next }
        state == 1 && /^```/ { state = 2; next }
        state == 2 && /^```/ { exit }
        state == 2 && !/^#/ { print }' "$2"
}

# example_for_camsim EXAMPLE: prints the installed example configuration,
# written for a recorder's cameras, pointed at the checks' simulated ones
# (camsim on loopback, ports 8001 and 8002, account admin:admin) as the
# integration guide's by-hand commands point it.
example_for_camsim() {
    sed -e 's/^\(SERV_PPL_CAM_[01]_IP\)=.*/\1=127.0.0.1/' \
        -e 's/^\(SERV_PPL_CAM_[01]_PASSWORD\)=.*/\1=admin/' \
        -e 's/^\(SERV_PPL_CAM_0_HTTP\)=.*/\1=8001/' -e 's/^\(SERV_PPL_CAM_1_HTTP\)=.*/\1=8002/' "$1"
}

# report CONSOLE_LOG: prints the guest's check and verdict lines; passes
# only on its "verdict: PASS" line, else shows the console log's last lines.
report() {
    local lines
    lines=$(tr -d '\r' <"$1" | grep -aE '^(check|verdict): ' || true)
    [ -z "$lines" ] || echo "$lines"
    if grep -qE '^verdict: PASS \(' <<<"$lines" && ! grep -q '^verdict: FAIL' <<<"$lines"; then
        return 0
    fi
    echo "FAIL: the guest printed no passing verdict; the console log ends:"
    tr -d '\r' <"$1" | tail -n 40
    return 1
}
