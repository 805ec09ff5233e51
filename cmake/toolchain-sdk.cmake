# A recorder vendor's SDK, as such SDKs ship: a compiler prefix and a target
# root (sysroot).
#
#   cmake -S . -B build-sdk -DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/toolchain-sdk.cmake \
#         -DPPL_SDK_PREFIX=/opt/sdk/bin/arm-linux-gnueabihf- \
#         -DPPL_SDK_SYSROOT=/opt/sdk/sysroot -DBUILD_TESTING=OFF
#
# PPL_SDK_PREFIX      the compilers' path without "gcc"/"g++" (required)
# PPL_SDK_SYSROOT     the target root holding the C and C++ runtime (optional
#                     when the compiler has one built in)
# PPL_SDK_PROCESSOR   CMAKE_SYSTEM_PROCESSOR (default arm)
# PPL_SDK_EMULATOR    a command that runs target programs, for the tests
#                     (for example "qemu-arm;-L;/opt/sdk/sysroot")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PPL_SDK_PREFIX PPL_SDK_SYSROOT PPL_SDK_PROCESSOR
                                         PPL_SDK_EMULATOR)
if(NOT PPL_SDK_PREFIX)
    message(FATAL_ERROR "toolchain-sdk.cmake needs -DPPL_SDK_PREFIX=<path>/<triplet>- (the "
                        "SDK's compilers without gcc/g++)")
endif()
set(CMAKE_SYSTEM_NAME Linux)
if(PPL_SDK_PROCESSOR)
    set(CMAKE_SYSTEM_PROCESSOR ${PPL_SDK_PROCESSOR})
else()
    set(CMAKE_SYSTEM_PROCESSOR arm)
endif()
set(CMAKE_C_COMPILER ${PPL_SDK_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${PPL_SDK_PREFIX}g++)

if(PPL_SDK_SYSROOT)
    set(CMAKE_SYSROOT ${PPL_SDK_SYSROOT})
    set(CMAKE_FIND_ROOT_PATH ${PPL_SDK_SYSROOT})
endif()
include(${CMAKE_CURRENT_LIST_DIR}/target-root.cmake)

if(PPL_SDK_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${PPL_SDK_EMULATOR})
endif()
