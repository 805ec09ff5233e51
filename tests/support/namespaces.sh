# Sourced by the shell tests that run programs in private namespaces.
# require_namespaces fails the test with a one-line reason where the kernel
# refuses them (a container without the privilege, a chroot), unless
# PPL_ALLOW_NO_NAMESPACES=1 explicitly allows skipping: then the test exits
# with 77, which CTest reports as skipped.
# shellcheck shell=bash
require_namespaces() {
    local why
    if why=$(unshare --ipc --mount --net --map-root-user true 2>&1); then
        return 0
    fi
    if [ "${PPL_ALLOW_NO_NAMESPACES:-}" = 1 ]; then
        echo "SKIP: no private namespaces here (${why:-unshare failed})"
        exit 77
    fi
    echo "FAIL: the kernel refuses private namespaces (${why:-unshare failed}); set PPL_ALLOW_NO_NAMESPACES=1 to skip the tests that need them"
    exit 1
}
