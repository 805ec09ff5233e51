# Runs at install time (from the install rules of the top-level CMakeLists),
# when CMAKE_INSTALL_PREFIX holds the prefix actually used, --prefix included.
# Places the init script in <sysconfdir>/init.d and the systemd unit in the
# systemd unit directory, both naming the installed pplcounter and pplctl,
# and the unit's tmpfiles.d entry (the configuration's directory) beside it. Follows the
# usual convention for system packages: prefix /usr keeps its configuration
# in /etc; any other prefix P in P/etc. Nothing is written outside DESTDIR
# and the prefix (or /etc for /usr).
if(IS_ABSOLUTE "${PPL_SBINDIR}")
    set(PPL_SBIN "${PPL_SBINDIR}")
else()
    set(PPL_SBIN "${CMAKE_INSTALL_PREFIX}/${PPL_SBINDIR}")
endif()
if(IS_ABSOLUTE "${PPL_BINDIR}")
    set(PPL_BIN "${PPL_BINDIR}")
else()
    set(PPL_BIN "${CMAKE_INSTALL_PREFIX}/${PPL_BINDIR}")
endif()
string(REGEX REPLACE "/+" "/" PPL_SBIN "${PPL_SBIN}")
string(REGEX REPLACE "/+" "/" PPL_BIN "${PPL_BIN}")
if(CMAKE_INSTALL_PREFIX MATCHES "^/usr/?$")
    set(ppl_sysconfdir "/etc")
    set(ppl_systemd_libdir "/usr/lib")
else()
    set(ppl_sysconfdir "${CMAKE_INSTALL_PREFIX}/etc")
    set(ppl_systemd_libdir "${CMAKE_INSTALL_PREFIX}/lib")
endif()

set(ppl_out "${PPL_BINARY_DIR}/packaging")
configure_file("${PPL_SOURCE_DIR}/packaging/init.d/pplcounter.in" "${ppl_out}/pplcounter" @ONLY)
configure_file("${PPL_SOURCE_DIR}/packaging/systemd/pplcounter.service.in"
               "${ppl_out}/pplcounter.service" @ONLY)
file(INSTALL "${ppl_out}/pplcounter" DESTINATION "${ppl_sysconfdir}/init.d"
     FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                      WORLD_READ WORLD_EXECUTE)
file(INSTALL "${ppl_out}/pplcounter.service" DESTINATION "${ppl_systemd_libdir}/systemd/system")
file(INSTALL "${PPL_SOURCE_DIR}/packaging/tmpfiles/pplcounter.conf"
     DESTINATION "${ppl_systemd_libdir}/tmpfiles.d")
