# What `cmake --install` installs: the libraries with their headers and what finds them (pkg-config files and
# a CMake package), the daemon with its units, the tools. All of it can be moved as a whole afterwards, but for
# the unit and the scripts for bpftrace: they want absolute paths.
include(CMakePackageConfigHelpers)

set(L2VPN_UNITDIR lib/systemd/system CACHE STRING "Where systemd's units go, below the prefix or absolute")
set(L2VPN_EXAMPLESDIR ${CMAKE_INSTALL_DOCDIR}/examples CACHE STRING "Where the sources of the examples go")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/l2vpn_ac)
set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(made ${PROJECT_BINARY_DIR}/packaging)

# --------------------------------------------------------------------------------------------------------
# Libraries and programs. They find their libraries in the same tree, wherever it is.

set(libraries l2vpn_ac l2vpn_platform l2vpn_sim)
set(programs l2vpnctl l2vpn-trace)
file(RELATIVE_PATH from_bin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH from_sbin ${CMAKE_INSTALL_FULL_SBINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(${libraries} PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(${programs} PROPERTIES INSTALL_RPATH "$ORIGIN/${from_bin}")
set_target_properties(l2vpnd PROPERTIES INSTALL_RPATH "$ORIGIN/${from_sbin}")
set_target_properties(${libraries} ${programs} l2vpnd PROPERTIES BUILD_RPATH_USE_ORIGIN ON)

install(TARGETS ${libraries} l2vpn_ac_headers l2vpn_platform_headers EXPORT l2vpn_ac FILE_SET HEADERS)
install(TARGETS ${programs})
install(TARGETS l2vpnd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# --------------------------------------------------------------------------------------------------------
# What other builds find them by

foreach(target IN LISTS libraries ITEMS l2vpn_ac_headers l2vpn_platform_headers)
    string(REGEX REPLACE "^l2vpn_" "" name ${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
    add_library(l2vpn::${name} ALIAS ${target})
endforeach()
install(EXPORT l2vpn_ac NAMESPACE l2vpn:: FILE l2vpn_ac-targets.cmake DESTINATION ${package_dir})
configure_package_config_file(${packaging}/l2vpn_ac-config.cmake.in ${made}/l2vpn_ac-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${made}/l2vpn_ac-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${made}/l2vpn_ac-config.cmake ${made}/l2vpn_ac-config-version.cmake DESTINATION ${package_dir})

# l2vpn_pkg_config(LIBRARY DESCRIPTION [REQUIRES]): its file, with every path beside its own.
file(RELATIVE_PATH to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" to_prefix "${to_prefix}")
function(l2vpn_pkg_config library description)
    set(requires ${ARGN})
    configure_file(${packaging}/library.pc.in ${made}/${library}.pc @ONLY)
    install(FILES ${made}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
l2vpn_pkg_config(l2vpn_ac "L2VPN attachment circuit client library" l2vpn_platform)
l2vpn_pkg_config(l2vpn_platform "The platform of the L2VPN AC client library on Linux")
l2vpn_pkg_config(l2vpn_sim "The simulated platform of the L2VPN AC client library, for tests")

# --------------------------------------------------------------------------------------------------------
# What else the programs come with

install(FILES ${packaging}/completion/l2vpnctl ${packaging}/completion/l2vpnd ${packaging}/completion/l2vpn-trace
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${packaging}/wireshark/l2vpn.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins)
file(GLOB manuals CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.[1-8])
list(FILTER manuals EXCLUDE REGEX /l2vpn-owner) # an example
foreach(manual IN LISTS manuals)
    string(REGEX MATCH "[1-8]$" section ${manual})
    install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

file(GLOB documents CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md ${PROJECT_SOURCE_DIR}/docs/*.svg)
install(FILES ${documents} ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
foreach(example minimal tutorial embed owner)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/${example} DESTINATION ${L2VPN_EXAMPLESDIR}
        PATTERN CMakeLists.txt EXCLUDE) # which are parts of this build
endforeach()

# The unit names the daemon and its file of options where they are being installed, which is known only then. What
# belongs to /usr has its files in /etc. A file of options that is there already is its operator's.
install(CODE "
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
    cmake_path(APPEND prefix \"${CMAKE_INSTALL_SBINDIR}\" OUTPUT_VARIABLE sbindir)
    set(sysconfdir \"\${prefix}\")
    if(prefix STREQUAL \"/usr\")
        set(sysconfdir /)
    endif()
    cmake_path(APPEND sysconfdir \"${CMAKE_INSTALL_SYSCONFDIR}\")
    configure_file(\"${packaging}/systemd/l2vpnd.service.in\" \"${made}/l2vpnd.service\" @ONLY)
    set(options \"\${sysconfdir}/l2vpn/l2vpnd.conf\")
    if(EXISTS \"\$ENV{DESTDIR}\${options}\" OR IS_SYMLINK \"\$ENV{DESTDIR}\${options}\")
        message(STATUS \"Kept: \$ENV{DESTDIR}\${options}\")
    else()
        file(INSTALL \"${packaging}/systemd/l2vpnd.conf\" DESTINATION \"\${sysconfdir}/l2vpn\")
    endif()")
# Scripts name the files that they look into by absolute paths, too.
install(CODE "
    cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
    cmake_path(APPEND prefix \"${CMAKE_INSTALL_LIBDIR}\" OUTPUT_VARIABLE l2vpn_libdir)
    cmake_path(APPEND prefix \"${CMAKE_INSTALL_SBINDIR}\" OUTPUT_VARIABLE l2vpn_sbindir)
    foreach(script l2vpn-latency l2vpn-states l2vpn-traffic)
        configure_file(\"${packaging}/bpftrace/\${script}.bt.in\" \"${made}/\${script}.bt\" @ONLY)
        file(INSTALL \"${made}/\${script}.bt\" DESTINATION \"\${prefix}/${CMAKE_INSTALL_DATADIR}/l2vpn\")
    endforeach()")
install(FILES ${made}/l2vpnd.service ${packaging}/systemd/l2vpnd.socket DESTINATION ${L2VPN_UNITDIR})
install(FILES ${packaging}/systemd/sysusers.conf DESTINATION lib/sysusers.d RENAME l2vpnd.conf)
install(FILES ${packaging}/systemd/tmpfiles.conf DESTINATION lib/tmpfiles.d RENAME l2vpnd.conf)
