# Shared part of the Debian cross toolchains. The including file sets
# PPL_CROSS_TRIPLET (GNU triplet), PPL_CROSS_PROCESSOR and PPL_CROSS_QEMU
# (the qemu-user binary for that processor).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${PPL_CROSS_PROCESSOR})

set(CMAKE_C_COMPILER ${PPL_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${PPL_CROSS_TRIPLET}-g++)

# Debian installs the target's C and C++ runtime under /usr/<triplet>.
set(PPL_CROSS_ROOT /usr/${PPL_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH ${PPL_CROSS_ROOT})
include(${CMAKE_CURRENT_LIST_DIR}/target-root.cmake)

# Test programs and test discovery run the target binaries under qemu-user,
# which finds the target's loader and libraries below the same root. An
# explicit path keeps it working where the kernel has no binfmt_misc entry.
find_program(PPL_CROSS_QEMU_PATH ${PPL_CROSS_QEMU})
if(PPL_CROSS_QEMU_PATH)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${PPL_CROSS_QEMU_PATH} -L ${PPL_CROSS_ROOT})
endif()
