#!/usr/bin/env bash
# The demo runs for 5 seconds by itself, shows counts and ends with status 0.
set -uo pipefail
# shellcheck source=tests/support/namespaces.sh
. "$(dirname "$0")/../support/namespaces.sh"
require_namespaces
src=$1 build=$2
cd "$src" || exit 1
out=$("$build/tests/support/pplsandbox" scripts/demo-inside 5 2>&1)
status=$?
echo "$out" | tail -n 20
fail() { echo "FAIL: $1"; exit 1; }
[ "$status" -eq 0 ] || fail "demo ended with status $status"
echo "$out" | grep -q "in camera:  connect" || fail "no connected in camera shown"
echo "$out" | grep -q "event=ppl_count&in0=" || fail "no count event shown"
echo "$out" | grep -q "PPLCounter::Run(), receive interrupt." || fail "service did not end cleanly"
echo "$out" | grep -q "pplcounter ended with status 0" || fail "service status not 0"
echo PASS
