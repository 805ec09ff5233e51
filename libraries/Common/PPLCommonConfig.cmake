# The installed common library: find_package(PPLCommon) gives the target
# PPLCommon::common (the archive, its headers, and the threads and dynamic
# loader libraries it needs).
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/PPLCommonTargets.cmake)
