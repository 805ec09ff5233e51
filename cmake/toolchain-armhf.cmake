# 32-bit ARM, hard-float (the recorder's processor), with Debian's
# g++-arm-linux-gnueabihf; tests run under qemu-arm.
set(PPL_CROSS_TRIPLET arm-linux-gnueabihf)
set(PPL_CROSS_PROCESSOR arm)
set(PPL_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-linux-gnu.cmake)
