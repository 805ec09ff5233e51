#!/usr/bin/env bash
# scripts/setup-deps against a stand-in apt-get (and dpkg-query, id) that
# fails as a mirror mid-sync makes it fail: a failed update with installable
# packages goes on and installs them, packages that cannot be installed fail
# the script with apt-get's error, and every apt-get call waits for a held
# dpkg lock.
# Usage: setup_deps_test.sh SOURCE_DIR
set -euo pipefail
src=$1
fail() { echo "FAIL: $*"; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
# Nothing is installed yet, and this is root.
printf '#!/bin/sh\nexit 1\n' >"$work/bin/dpkg-query"
printf '#!/bin/sh\necho 0\n' >"$work/bin/id"
# apt-get notes its arguments and fails the step named in $FAIL_STEPS.
cat >"$work/bin/apt-get" <<'EOF2'
#!/bin/sh
echo "$*" >>"$CALLS"
for step in $FAIL_STEPS; do
    case " $* " in
        *" $step "*)
            echo "E: Failed to fetch $step: File has unexpected size (mirror sync in progress?)" >&2
            exit 100 ;;
    esac
done
EOF2
chmod +x "$work/bin/"*

# Runs setup-deps with the steps given failing; sets out and status.
run() {
    : >"$work/calls"
    status=0
    out=$(PATH="$work/bin:$PATH" CALLS=$work/calls FAIL_STEPS="$*" "$src/scripts/setup-deps" 2>&1) ||
        status=$?
}

run update
[ "$status" -eq 0 ] || fail "a failed update stopped an install that works: $out"
grep -q "^warning: apt-get update failed; installing from the package lists at hand:" <<<"$out" ||
    fail "the failed update was not reported: $out"
grep -q "^-o DPkg::Lock::Timeout=600 install -y" "$work/calls" || fail "no install: $(cat "$work/calls")"

run update install
[ "$status" -ne 0 ] || fail "packages that cannot be installed did not fail the script"
grep -q "^E: Failed to fetch install" <<<"$out" || fail "apt-get's install error is not shown: $out"
grep -q "^error: cannot install cmake" <<<"$out" || fail "no error line: $out"

run
[ "$status" -eq 0 ] || fail "a clean run failed: $out"
[ "$(grep -c "^-o DPkg::Lock::Timeout=600 " "$work/calls")" -eq 2 ] ||
    fail "not every apt-get call waits for the lock: $(cat "$work/calls")"
grep -q warning <<<"$out" && fail "a clean run warned: $out"
echo PASS
