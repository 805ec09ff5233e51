# Shared by the toolchain files: libraries, headers and CMake packages come
# only from the target root in CMAKE_FIND_ROOT_PATH (and the camera makers'
# client libraries from PPL_VENDOR_DIR, looked up there as given), never from
# the build machine; programs only from the build machine.
if(PPL_VENDOR_DIR)
    list(APPEND CMAKE_FIND_ROOT_PATH ${PPL_VENDOR_DIR})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages built for the target (GoogleTest) live in a prefix of the build
# tree, named by GTest_DIR; host packages must never match.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
