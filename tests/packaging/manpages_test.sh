#!/usr/bin/env bash
# The manual pages format without a single warning.
# Usage: manpages_test.sh SOURCE_DIR
set -euo pipefail
cd "$1/docs/man"
command -v groff >/dev/null || { echo "FAIL: groff is not installed"; exit 1; }
failed=0
for page in pplcounter.8 pplctl.1 camsim.1; do
    out=$(groff -ww -z -man "$page" 2>&1)
    if command -v man >/dev/null; then
        out+=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
    fi
    if [ -n "$out" ]; then
        echo "FAIL: $page: $out"
        failed=1
    else
        echo "ok   $page"
    fi
done
exit "$failed"
