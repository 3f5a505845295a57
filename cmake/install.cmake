# Installation in the device's layout and its Debian packages (CPack, DEB):
#   cmake --install build [--prefix DIR]          (DESTDIR works as usual)
#   cpack --config build/CPackConfig.cmake -B DIR (packages cfgd or cfgd-legacy, and cfgd-web)
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

# The daemon's package, named after the build's profile: `cfgd` holds the hardened one, which
# ships on devices; a legacy build's is `cfgd-legacy`, so that a device maker who installs
# `cfgd` never gets the legacy daemon. The two hold the same files: each conflicts with and
# replaces the other. The component stays `cfgd` in both.
if(CFGD_HARDENED)
  set(CFGD_DAEMON_PACKAGE cfgd)
  set(CFGD_OTHER_DAEMON_PACKAGE cfgd-legacy)
else()
  set(CFGD_DAEMON_PACKAGE cfgd-legacy)
  set(CFGD_OTHER_DAEMON_PACKAGE cfgd)
endif()

# The daemon's package (component cfgd): the daemon, cfgctl and the init script.
install(TARGETS cfgd DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT cfgd)
install(TARGETS cfgctl DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cfgd)
set(SBINDIR ${CMAKE_INSTALL_FULL_SBINDIR})
set(BINDIR ${CMAKE_INSTALL_FULL_BINDIR})
set(SYSCONFDIR ${CFGD_SYSCONF_DIR})
configure_file(${PROJECT_SOURCE_DIR}/packaging/S50cfgd.in ${PROJECT_BINARY_DIR}/packaging/S50cfgd
               @ONLY)
install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/S50cfgd DESTINATION ${CFGD_SYSCONF_DIR}/init.d
        COMPONENT cfgd)
# The manual pages, compressed, into share/man.
include(${PROJECT_SOURCE_DIR}/cmake/man.cmake)

# Package cfgd-web: the PHP library, the front end (web/lib/app.php finds the library at
# share/cfgd/php beside share/cfgd/web), the web server's snippet, the password command and the
# certificate command that the snippet runs.
install(FILES clients/php/cfgd.php clients/php/cfgd_names.php DESTINATION ${CFGD_SHARE_DIR}/php
        COMPONENT cfgd-web)
install(DIRECTORY web/public web/lib DESTINATION ${CFGD_SHARE_DIR}/web COMPONENT cfgd-web
        FILES_MATCHING PATTERN "*.php" PATTERN "*.js" PATTERN "*.css" PATTERN "*.svg")
install(PROGRAMS web/cfgd-web-passwd web/cfgd-web-cert DESTINATION ${CMAKE_INSTALL_SBINDIR}
        COMPONENT cfgd-web)
# The snippet names the installed document root, include path, cfgctl and cfgd-web-cert; the
# sandbox's web server uses the source tree's as it stands.
file(READ ${PROJECT_SOURCE_DIR}/web/lighttpd/cfgd-web.conf CFGD_WEB_CONF)
set(CFGD_WEB_CONF_DIR ${CFGD_SYSCONF_DIR}/lighttpd/conf-available)
string(REPLACE "\"/usr/share/cfgd/web/public\"   # web/public of the source tree"
               "\"${CFGD_FULL_SHARE_DIR}/web/public\"" CFGD_WEB_CONF "${CFGD_WEB_CONF}")
string(REPLACE "\"/etc/lighttpd/cfgd-web.conf\"" "\"${CFGD_WEB_CONF_DIR}/cfgd-web.conf\""
               CFGD_WEB_CONF "${CFGD_WEB_CONF}")
string(REPLACE "\"/usr/bin/cfgctl\"" "\"${CMAKE_INSTALL_FULL_BINDIR}/cfgctl\"" CFGD_WEB_CONF
               "${CFGD_WEB_CONF}")
string(REPLACE "\"/usr/sbin/cfgd-web-cert " "\"${CMAKE_INSTALL_FULL_SBINDIR}/cfgd-web-cert "
               CFGD_WEB_CONF "${CFGD_WEB_CONF}")
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/cfgd-web.conf CONTENT "${CFGD_WEB_CONF}"
     @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/web/lighttpd/cfgd-web.conf)
install(FILES ${PROJECT_BINARY_DIR}/packaging/cfgd-web.conf DESTINATION ${CFGD_WEB_CONF_DIR}
        COMPONENT cfgd-web)

# Every package's share/doc/PACKAGE holds the copyright file (machine-readable) and the
# changelog (packaging/changelog, Debian's format; a native package's changelog.gz). The
# maintainer is the one of the changelog's latest entry.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/packaging/changelog)
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/changelog CFGD_CHANGELOG_TRAILER REGEX "^ -- "
     LIMIT_COUNT 1)
if(NOT CFGD_CHANGELOG_TRAILER MATCHES "^ -- ([^<>]+ <[^<>]+>)  ")
  message(FATAL_ERROR "packaging/changelog: no \" -- NAME <ADDRESS>  DATE\" line")
endif()
set(CPACK_PACKAGE_CONTACT "${CMAKE_MATCH_1}")
execute_process(COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/packaging/changelog
                OUTPUT_FILE ${PROJECT_BINARY_DIR}/packaging/changelog.gz
                RESULT_VARIABLE CFGD_GZIP_STATUS)
if(NOT CFGD_GZIP_STATUS EQUAL 0)
  message(FATAL_ERROR "packaging/changelog: gzip failed")
endif()
# A build that links the C++ runtime into its programs (the device's) says so and under which
# terms in its daemon package's copyright file.
set(CFGD_COPYRIGHT_RUNTIME "")
configure_file(${PROJECT_SOURCE_DIR}/packaging/copyright.in
               ${PROJECT_BINARY_DIR}/packaging/cfgd-web/copyright @ONLY)
if(CMAKE_EXE_LINKER_FLAGS MATCHES "-static-libstdc\\+\\+")
  string(CONCAT CFGD_COPYRIGHT_RUNTIME "\nComment: cfgd and cfgctl carry GCC's C++ runtime "
                "(libstdc++ and libgcc), linked\n statically: GPL-3+ with the GCC Runtime "
                "Library Exception 3.1, which lets\n programs that GCC compiled carry it on "
                "terms of their own.")
endif()
configure_file(${PROJECT_SOURCE_DIR}/packaging/copyright.in
               ${PROJECT_BINARY_DIR}/packaging/cfgd/copyright @ONLY)
foreach(package IN ITEMS cfgd cfgd-web)
  set(name ${package})
  if(package STREQUAL "cfgd")
    set(name ${CFGD_DAEMON_PACKAGE})
  endif()
  install(FILES ${PROJECT_BINARY_DIR}/packaging/${package}/copyright
                ${PROJECT_BINARY_DIR}/packaging/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${name} COMPONENT ${package})
endforeach()
# What lintian rightly reports of a Debian system but does not hold for the device, with why.
configure_file(${PROJECT_SOURCE_DIR}/packaging/lintian-overrides.in
               ${PROJECT_BINARY_DIR}/packaging/cfgd/lintian-overrides @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/cfgd/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${CFGD_DAEMON_PACKAGE}
        COMPONENT cfgd)

# The packages, versioned as the daemon reports itself (cfgd -v).
file(STRINGS ${PROJECT_SOURCE_DIR}/src/core/version.h CFGD_VERSION_LINE REGEX "kSoftwareVersion")
string(REGEX MATCH "[0-9][0-9.]*" CFGD_PACKAGE_VERSION "${CFGD_VERSION_LINE}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/src/core/version.h)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cfgd)
set(CPACK_PACKAGE_VERSION ${CFGD_PACKAGE_VERSION})
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
set(CPACK_DEBIAN_CFGD_PACKAGE_NAME ${CFGD_DAEMON_PACKAGE})
set(CPACK_DEBIAN_CFGD_PACKAGE_CONFLICTS ${CFGD_OTHER_DAEMON_PACKAGE})
set(CPACK_DEBIAN_CFGD_PACKAGE_REPLACES ${CFGD_OTHER_DAEMON_PACKAGE})
# Descriptions: the first line is the summary; lines of at most 80 characters.
set(CFGD_DESCRIPTION "cfgd applies the device's configuration file at start and serves reads and
writes over a System V message queue; cfgctl is its command-line client,
S50cfgd its init script.
")
if(CFGD_HARDENED)
  set(CPACK_DEBIAN_CFGD_DESCRIPTION "configuration daemon of the CAN-to-LAN gateway
${CFGD_DESCRIPTION}
This is the hardened profile: only root and the group ${CFGD_HARDENED_GROUP} (the web front
end's) reach the daemon, and the values that clients write are checked, before
they reach root's shell lines and files, by rules that name what they refuse.
cfgd-legacy holds the device's historical behaviour instead.")
else()
  # What the legacy profile keeps, from SECURITY.md.
  set(CPACK_DEBIAN_CFGD_DESCRIPTION "configuration daemon of the CAN-to-LAN gateway, legacy profile
${CFGD_DESCRIPTION}
This is the legacy profile, which keeps the device's historical behaviour byte
for byte, hazards included: the queue and semaphores are open to every local
user (mode 0666, the lock file 0777), the host name reaches root's shell lines
unquoted, and texts and WLAN keys go into files as they are. So every local
user and every user of the web front end can run commands as root. Install it
only where they are all trusted with root; cfgd holds the hardened profile.")
endif()
# The shared libraries the programs need (the C library and iniparser; on a host build also
# the C++ runtime), with their versions, from dpkg-shlibdeps.
set(CPACK_DEBIAN_CFGD_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_NAME cfgd-web)
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_CFGD-WEB_DESCRIPTION "web front end of the CAN-to-LAN gateway's configuration
PHP pages and the PHP client library of cfgd, with a lighttpd snippet (HTTPS
with the device's own certificate, which cfgd-web-cert makes) and
cfgd-web-passwd, which sets a user's password for the sign-in.")
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_DEPENDS
    "lighttpd, lighttpd-mod-openssl, openssl, php-cgi, cfgd | cfgd-legacy")
# What the packages place in /etc is the administrator's to edit: conffiles. No maintainer
# scripts: nothing is started while a device image is built; the device's rcS starts S50cfgd.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/cfgd/conffiles
     CONTENT "${CFGD_SYSCONF_DIR}/init.d/S50cfgd\n" @ONLY)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/packaging/cfgd-web/conffiles
     CONTENT "${CFGD_WEB_CONF_DIR}/cfgd-web.conf\n" @ONLY)
set(CPACK_DEBIAN_CFGD_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/cfgd/conffiles)
set(CPACK_DEBIAN_CFGD-WEB_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/cfgd-web/conffiles)
include(CPack)
