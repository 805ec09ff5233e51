#!/usr/bin/env bash
# Every shell script of the project passes shellcheck; the init script, which
# runs under BusyBox, as a POSIX sh script.
# Usage: shellcheck_test.sh SOURCE_DIR
set -euo pipefail
cd "$1"
command -v shellcheck >/dev/null || { echo "FAIL: shellcheck is not installed"; exit 1; }
scripts=()
while IFS= read -r f; do
    if [ -f "$f" ] && head -n 1 "$f" | grep -qE '^#!.*(ba)?sh'; then scripts+=("$f"); fi
done < <(git ls-files)
[ ${#scripts[@]} -gt 0 ] || { echo "FAIL: no shell script found"; exit 1; }
shellcheck -x "${scripts[@]}"
shellcheck -s sh packaging/init.d/pplcounter.in
echo "PASS: ${#scripts[@]} scripts"
