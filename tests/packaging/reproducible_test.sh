#!/usr/bin/env bash
# Two copies of the tree in directories of different lengths, each built
# (Release, without tests) and installed: the stripped installed binaries must
# be byte-identical, and none may name the directory it was built in.
# Usage: reproducible_test.sh SOURCE_DIR
set -euo pipefail
src=$1
fail() { echo "FAIL: $*"; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
jobs=$(nproc 2>/dev/null || echo 2)
trees=("$work/a" "$work/second-copy/of-the-tree")
for tree in "${trees[@]}"; do
    mkdir -p "$tree"
    git -C "$src" ls-files -z --cached --others --exclude-standard | tar -C "$src" --null -T - -cf - | tar -C "$tree" -xf -
    cmake -S "$tree" -B "$tree/out" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
    cmake --build "$tree/out" -j"$jobs" >/dev/null
    DESTDIR=$tree/stage cmake --install "$tree/out" --prefix /usr --strip >/dev/null
done

a=${trees[0]}/stage b=${trees[1]}/stage
binaries=$(cd "$a" && find . -type f \( -perm -u+x -o -name '*.so*' \) | sort)
[ -n "$binaries" ] || fail "nothing installed"
for f in $binaries; do
    cmp -s "$a/$f" "$b/$f" || fail "$f differs between the two builds"
    for tree in "${trees[@]}"; do
        if strings -a "$a/$f" "$b/$f" | grep -qF "$tree"; then
            fail "$f names the directory it was built in ($tree)"
        fi
    done
    echo "identical: $f"
done
# The log lines' source names are the repository's.
strings -a "$a/usr/sbin/pplcounter" | grep -qx "libraries/Common/NMQueue.cpp" ||
    fail "pplcounter does not name libraries/Common/NMQueue.cpp by its repository path"
echo PASS
