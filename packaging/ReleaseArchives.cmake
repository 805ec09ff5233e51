# Release archives, one per install component, made by `cpack` in the build
# directory (or the "package" target):
#   pplcounter-<version>-<arch>-runtime.tar.gz   what a recorder needs
#   pplcounter-<version>-<arch>-display.tar.gz   the door display
#   pplcounter-<version>-<arch>-tools.tar.gz     camsim and the headers
# Laid out for prefix /usr with binaries stripped, to be unpacked over a
# firmware image's root (the init script then names /usr/sbin/pplcounter).

# The architecture as firmware engineers name it, from the compiler's target:
# x86_64-linux-gnu gives x86_64, arm-linux-gnueabihf armhf, aarch64-linux-gnu
# aarch64.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpmachine OUTPUT_VARIABLE ppl_target
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
string(REGEX REPLACE "-.*" "" ppl_arch "${ppl_target}")
if(ppl_target MATCHES "^arm.*hf$")
    set(ppl_arch armhf)
elseif(ppl_target MATCHES "^arm")
    set(ppl_arch armel)
endif()
if(NOT ppl_arch)
    set(ppl_arch ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(PPL_PACKAGE_ARCH "${ppl_arch}" CACHE STRING "Architecture named in the release archives")

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_NAME pplcounter)
set(CPACK_PACKAGE_VENDOR "the pplcounter authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "People-counting service for network video recorders")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime display tools)
set(CPACK_ARCHIVE_RUNTIME_FILE_NAME pplcounter-${PROJECT_VERSION}-${PPL_PACKAGE_ARCH}-runtime)
set(CPACK_ARCHIVE_DISPLAY_FILE_NAME pplcounter-${PROJECT_VERSION}-${PPL_PACKAGE_ARCH}-display)
set(CPACK_ARCHIVE_TOOLS_FILE_NAME pplcounter-${PROJECT_VERSION}-${PPL_PACKAGE_ARCH}-tools)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
# Installed as `DESTDIR=... cmake --install --prefix /usr` installs, so that the
# start-up scripts are written for /usr and placed in /etc.
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
include(CPack)
