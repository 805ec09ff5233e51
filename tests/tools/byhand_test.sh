#!/usr/bin/env bash
# Runs the "Running it by hand" commands of docs/integration.md exactly as the
# guide prints them, in a private namespace, from a copy of the programs they
# name that does not lie under the /tmp they cover.
# Usage: byhand_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2
fail() { echo "FAIL: $*"; exit 1; }
# shellcheck source=tests/support/namespaces.sh
. "$(dirname "$0")/../support/namespaces.sh"
require_namespaces

commands=$(sed -n '/^<!-- by-hand commands/,/^```$/p' "$src/docs/integration.md" | sed '1,2d;$d')
[ -n "$commands" ] || fail "no by-hand block in docs/integration.md"
work=$(mktemp -d -p /var/tmp)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/build" "$work/docs"
cp -a "$build"/pplcounter "$build"/pplctl "$build"/camsim "$build"/lib*.so* "$work/build/"
cp "$src/docs/ZV318System.ini.example" "$work/docs/"

out=$(cd "$work" && unshare --ipc --mount --net --map-root-user bash -e -c "$commands" 2>&1) ||
    fail "the commands failed: $out"
echo "$out"
for want in "No problems found." "doctor: all 10 checks passed" "in camera:  connect" "out camera: connect" "PPL.StayIn0.Count" \
    "counts cleared: the cameras took the clear request" \
    "reset requested; the cameras get the enable request within 5 s" "event=ppl_count&in0=" \
    "pplcounter ended with status 0"; do
    grep -qF -- "$want" <<<"$out" || fail "missing from the output: $want"
done
echo PASS
