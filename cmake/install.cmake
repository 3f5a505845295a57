# Installation in the device's layout and its Debian packages (CPack, DEB):
#   cmake --install build [--prefix DIR]          (DESTDIR works as usual)
#   cpack --config build/CPackConfig.cmake -B DIR (packages cfgd and cfgd-web)
# The prefix is /usr unless one is given, so that the programs land in /usr/sbin and /usr/bin
# and the configuration directory is /etc, as on the device.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Installation prefix" FORCE)
endif()
include(GNUInstallDirs)

set(CFGD_SHARE_DIR ${CMAKE_INSTALL_DATADIR}/cfgd)
set(CFGD_FULL_SHARE_DIR ${CMAKE_INSTALL_FULL_DATADIR}/cfgd)
# /etc for the prefix /usr (GNUInstallDirs); absolute, so that it does not move below the prefix.
set(CFGD_SYSCONF_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})

# Package cfgd: the daemon, cfgctl and the init script.
install(TARGETS cfgd DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT cfgd)
install(TARGETS cfgctl DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cfgd)
set(SBINDIR ${CMAKE_INSTALL_FULL_SBINDIR})
set(BINDIR ${CMAKE_INSTALL_FULL_BINDIR})
set(SYSCONFDIR ${CFGD_SYSCONF_DIR})
configure_file(${PROJECT_SOURCE_DIR}/packaging/S50cfgd.in ${PROJECT_BINARY_DIR}/packaging/S50cfgd
               @ONLY)
install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/S50cfgd DESTINATION ${CFGD_SYSCONF_DIR}/init.d
        COMPONENT cfgd)
# cfgctl(1) and cfgd(8), compressed, into share/man.
include(${PROJECT_SOURCE_DIR}/cmake/man.cmake)

# Package cfgd-web: the PHP library, the front end (web/lib/app.php finds the library at
# share/cfgd/php beside share/cfgd/web), the web server's snippet and the password command.
install(FILES clients/php/cfgd.php clients/php/cfgd_names.php DESTINATION ${CFGD_SHARE_DIR}/php
        COMPONENT cfgd-web)
install(DIRECTORY web/public web/lib DESTINATION ${CFGD_SHARE_DIR}/web COMPONENT cfgd-web
        FILES_MATCHING PATTERN "*.php" PATTERN "*.js" PATTERN "*.css")
install(PROGRAMS web/cfgd-web-passwd DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT cfgd-web)
# The snippet names the installed document root, include path and cfgctl; the sandbox's web
# server uses the source tree's as it stands.
file(READ ${PROJECT_SOURCE_DIR}/web/lighttpd/cfgd-web.conf CFGD_WEB_CONF)
set(CFGD_WEB_CONF_DIR ${CFGD_SYSCONF_DIR}/lighttpd/conf-available)
string(REPLACE "\"/usr/share/cfgd/web/public\"   # web/public of the source tree"
               "\"${CFGD_FULL_SHARE_DIR}/web/public\"" CFGD_WEB_CONF "${CFGD_WEB_CONF}")
string(REPLACE "\"/etc/lighttpd/cfgd-web.conf\"" "\"${CFGD_WEB_CONF_DIR}/cfgd-web.conf\""
               CFGD_WEB_CONF "${CFGD_WEB_CONF}")
string(REPLACE "\"/usr/bin/cfgctl\"" "\"${CMAKE_INSTALL_FULL_BINDIR}/cfgctl\"" CFGD_WEB_CONF
               "${CFGD_WEB_CONF}")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/cfgd-web.conf CONTENT "${CFGD_WEB_CONF}"
     @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/web/lighttpd/cfgd-web.conf)
install(FILES ${PROJECT_BINARY_DIR}/packaging/cfgd-web.conf DESTINATION ${CFGD_WEB_CONF_DIR}
        COMPONENT cfgd-web)

# The packages, versioned as the daemon reports itself (cfgd -v).
file(STRINGS ${PROJECT_SOURCE_DIR}/src/core/version.h CFGD_VERSION_LINE REGEX "kSoftwareVersion")
string(REGEX MATCH "[0-9][0-9.]*" CFGD_PACKAGE_VERSION "${CFGD_VERSION_LINE}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/src/core/version.h)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cfgd)
set(CPACK_PACKAGE_VERSION ${CFGD_PACKAGE_VERSION})
set(CPACK_PACKAGE_CONTACT "cfgd developers <cfgd@localhost>")
set(CPACK_COMPONENTS_ALL cfgd cfgd-web)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# The init script and the snippet go to /etc, outside the prefix.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabi")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armel)
else()
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
set(CPACK_DEBIAN_CFGD_PACKAGE_NAME cfgd)
# Descriptions: the first line is the summary.
set(CPACK_DEBIAN_CFGD_DESCRIPTION "configuration daemon of the CAN-to-LAN gateway
cfgd applies the device's configuration file at start and serves reads and writes over a
System V message queue; cfgctl is its command-line client, S50cfgd its init script.")
# The C++ runtime is linked in: the C library and iniparser are all the daemon needs.
set(CPACK_DEBIAN_CFGD_PACKAGE_DEPENDS "libc6, libiniparser1")
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_NAME cfgd-web)
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_CFGD-WEB_DESCRIPTION "web front end of the CAN-to-LAN gateway's configuration
PHP pages and the PHP client library of cfgd, with a lighttpd snippet and cfgd-web-passwd,
which sets a login's password.")
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_DEPENDS "lighttpd, php-cgi, cfgd")
# What the packages place in /etc is the administrator's to edit: conffiles. No maintainer
# scripts: nothing is started while a device image is built; the device's rcS starts S50cfgd.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/cfgd/conffiles
     CONTENT "${CFGD_SYSCONF_DIR}/init.d/S50cfgd\n" @ONLY)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/cfgd-web/conffiles
     CONTENT "${CFGD_WEB_CONF_DIR}/cfgd-web.conf\n" @ONLY)
set(CPACK_DEBIAN_CFGD_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/cfgd/conffiles)
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/cfgd-web/conffiles)
include(CPack)
