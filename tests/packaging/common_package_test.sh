#!/usr/bin/env bash
# The common library from another project, both ways: the consumer project of
# tests/packaging/consumer first adds pplcounter as a subdirectory, then finds
# the common component installed from this build as a CMake package. Each
# way it is configured, built and run; the install holds exactly the
# archive, its headers and the package files.
# Usage: common_package_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2
fail() { echo "FAIL: $*"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
consumer=$src/tests/packaging/consumer
libdir=$(sed -n 's/^CMAKE_INSTALL_LIBDIR:[A-Z]*=//p' "$build/CMakeCache.txt")

# Configures, builds and runs the consumer in $work/$1 with the rest as
# configure options; its output is the test's.
consume() {
    local dir=$work/$1
    shift
    cmake -S "$consumer" -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >"$dir.log" 2>&1 ||
        fail "configure ($*): $(tail -n 20 "$dir.log")"
    cmake --build "$dir" --target consumer -j2 >>"$dir.log" 2>&1 ||
        fail "build ($*): $(tail -n 20 "$dir.log")"
    "$dir/consumer" || fail "the consumer built with $* says the library is wrong"
}

consume subdirectory -DPPLCOUNTER_SOURCE="$src"

# An archive built with sanitizers or coverage counters needs their run-time
# libraries in whatever links it.
flags=
case $(sed -n 's/^PPL_SANITIZER:[A-Z]*=//p' "$build/CMakeCache.txt") in
    address) flags="-fsanitize=address,undefined" ;;
    thread) flags="-fsanitize=thread" ;;
esac
if grep -qx 'PPL_COVERAGE:BOOL=ON' "$build/CMakeCache.txt"; then
    flags="$flags --coverage"
fi
prefix=$work/prefix
cmake --install "$build" --component common --prefix "$prefix" >/dev/null ||
    fail "cmake --install --component common"
headers=(MD5 NMQueue NModuleInterface NTextCommand NURI SAttr UBase16 UFile ULog USignal UTextParam
    UTextUtil UTime UWait)
diff <(cd "$prefix" && find . ! -type d | sort) <(
    {
        printf './include/pplcommon/%s.h\n' "${headers[@]}"
        printf './%s\n' "$libdir/libpplcommon.a" "$libdir/cmake/PPLCommon/PPLCommonConfig.cmake" \
            "$libdir/cmake/PPLCommon/PPLCommonConfigVersion.cmake" \
            "$libdir/cmake/PPLCommon/PPLCommonTargets.cmake"
        cd "$prefix" && find . -name 'PPLCommonTargets-*.cmake'
    } | sort
) || fail "unexpected files in the common component"
consume installed -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_EXE_LINKER_FLAGS="$flags"
echo PASS
