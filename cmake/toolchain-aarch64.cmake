# 64-bit ARM with Debian's g++-aarch64-linux-gnu; tests run under qemu-aarch64.
set(PPL_CROSS_TRIPLET aarch64-linux-gnu)
set(PPL_CROSS_PROCESSOR aarch64)
set(PPL_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
