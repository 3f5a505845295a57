# The manual pages cfgctl(1), cfgd(8), cfgd-web-passwd(8) and cfgd-web-cert(8): man/*.in with
# the version, default paths, limits and exit statuses read from the sources that define them, so that a page
# never states another value than the programs use. Configured into build/man (read them with man -l) and installed
# gzip -9n compressed, as Debian's packages carry them, in the component of their program.

# Sets `var` to the value of `name` as `file` (relative to the source root) defines it:
# `name = "text";` gives the text, `name = number;` the number. A value that can no longer be
# found stops the configuration, so the pages cannot go stale quietly.
function(cfgd_source_constant var file name)
  file(STRINGS ${PROJECT_SOURCE_DIR}/${file} lines REGEX "[ \t]${name} = ")
  if(NOT "${lines}" MATCHES "${name} = \"?([^\";\\]+)")
    message(FATAL_ERROR "man pages: ${name} not found in ${file}")
  endif()
  set(${var} "${CMAKE_MATCH_1}" PARENT_SCOPE)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
               ${PROJECT_SOURCE_DIR}/${file})
endfunction()

# A daemon's status as the shell sees it: main's return value modulo 256.
function(cfgd_exit_status var file name)
  cfgd_source_constant(value ${file} ${name})
  math(EXPR value "(${value}) & 255")
  set(${var} ${value} PARENT_SCOPE)
endfunction()

cfgd_source_constant(VERSION src/core/version.h kSoftwareVersion)
cfgd_source_constant(BUILD_DATE src/core/version.h kBuildDate)
cfgd_source_constant(BUILD_TIME src/core/version.h kBuildTime)
cfgd_source_constant(ORDER_NUMBER src/core/version.h kProductOrderNumber)
cfgd_source_constant(CONFIG_PATH src/config/config_path.h kDefaultConfigPath)
cfgd_source_constant(MAX_PATH src/config/config_path.h kMaxPathLength)
cfgd_source_constant(BACKUP_PATH src/config/store.h kBackupConfigPath)
cfgd_source_constant(TEMPORARY_PATH src/config/store.h kTemporaryConfigPath)
cfgd_source_constant(LOCK_PATH src/core/options.h kDefaultLockPath)
cfgd_source_constant(PLATFORM_PATH src/network/platform_config.h kPlatformConfigPath)
cfgd_source_constant(DHCPD_PATH src/network/dhcp_server.h kDhcpdConfigPath)
cfgd_source_constant(UBOOT_ENV_PATH src/core/identity.h kUbootEnvPath)
cfgd_source_constant(BOARDINFO_PATH src/core/identity.h kBoardInfoPath)
cfgd_source_constant(FILTER_FILE src/filters/route_filters.h kFilterFileFormat)
string(REPLACE "%d" "N" FILTER_FILE "${FILTER_FILE}")
cfgd_source_constant(LARGEST_KEY src/core/options.cpp kLargestKey)
cfgd_exit_status(EXIT_DAEMON_USAGE src/core/options.cpp kExitUsage)
cfgd_exit_status(EXIT_DAEMON_BAD_OPTION src/core/options.cpp kExitBadOption)
cfgd_exit_status(EXIT_DAEMON_SIGNAL src/core/daemon.cpp kExitSignal)
cfgd_exit_status(EXIT_DAEMON_ALLOCATION src/core/daemon.cpp kExitAllocation)
cfgd_exit_status(EXIT_DAEMON_START src/core/daemon.cpp kExitStart)
cfgd_exit_status(EXIT_DAEMON_IPC src/core/daemon.cpp kExitIpc)

cfgd_source_constant(EXIT_OK tools/cfgctl_args.h kExitOk)
cfgd_source_constant(EXIT_REFUSED tools/cfgctl_args.h kExitRefused)
cfgd_source_constant(EXIT_USAGE tools/cfgctl_args.h kExitUsage)
cfgd_source_constant(EXIT_NO_DAEMON tools/cfgctl_args.h kExitNoDaemon)
cfgd_source_constant(EXIT_NO_ANSWER tools/cfgctl_args.h kExitNoAnswer)
cfgd_source_constant(EXIT_TRIAL_PENDING tools/cfgctl_args.h kExitTrialPending)
cfgd_source_constant(EXIT_NO_TRIAL tools/cfgctl_args.h kExitNoTrial)
cfgd_source_constant(MAX_ANNOUNCED tools/cfgctl_args.h kMaxAnnounced)
math(EXPR MAX_WRITES "${MAX_ANNOUNCED} + 1")
cfgd_source_constant(MIN_TRIAL tools/trial.h kMinTrialSeconds)
cfgd_source_constant(MAX_TRIAL tools/trial.h kMaxTrialSeconds)
cfgd_source_constant(TRIAL_SUFFIX tools/trial_file.cpp kDirectorySuffix)
cfgd_source_constant(DEFAULT_TIMEOUT tools/client.h kDefaultTimeoutSeconds)
cfgd_source_constant(MAX_TIMEOUT tools/cfgctl_args.cpp kMaxTimeoutSeconds)

# The password command's default files and group, as the script sets them.
foreach(setting WEB_PASSWORD_FILE:file WEB_PASSWORD_GROUP:group WEB_METRICS_TOKEN_FILE:token_file)
  string(REPLACE ":" ";" setting "${setting}")
  list(GET setting 0 variable)
  list(GET setting 1 name)
  file(STRINGS ${PROJECT_SOURCE_DIR}/web/cfgd-web-passwd lines REGEX "^${name}=\\$")
  if(NOT "${lines}" MATCHES "^${name}=\\$\\{[^:]+:-([^}]+)\\}")
    message(FATAL_ERROR "man pages: the default of ${name} not found in web/cfgd-web-passwd")
  endif()
  set(${variable} ${CMAKE_MATCH_1})
endforeach()
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/web/cfgd-web-passwd)

# The certificate command's default directory, as the script sets it.
file(STRINGS ${PROJECT_SOURCE_DIR}/web/cfgd-web-cert lines REGEX "^dir=\\$")
if(NOT "${lines}" MATCHES "dir=\\$\\{1:-([^}]+)\\}")
  message(FATAL_ERROR "man pages: the default directory not found in web/cfgd-web-cert")
endif()
set(WEB_CERT_DIR ${CMAKE_MATCH_1})
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
             ${PROJECT_SOURCE_DIR}/web/cfgd-web-cert)

# Each page goes into the package of its program.
set(CFGD_MAN_PAGES cfgctl.1 cfgd.8 cfgd-web-passwd.8 cfgd-web-cert.8)
set(CFGD_MAN_COMPONENT_cfgctl.1 cfgd)
set(CFGD_MAN_COMPONENT_cfgd.8 cfgd)
set(CFGD_MAN_COMPONENT_cfgd-web-passwd.8 cfgd-web)
set(CFGD_MAN_COMPONENT_cfgd-web-cert.8 cfgd-web)
set(CFGD_MAN_DIR ${PROJECT_BINARY_DIR}/man)
set(compressed)
foreach(page IN LISTS CFGD_MAN_PAGES)
  configure_file(${PROJECT_SOURCE_DIR}/man/${page}.in ${CFGD_MAN_DIR}/${page} @ONLY)
  add_custom_command(OUTPUT ${CFGD_MAN_DIR}/${page}.gz
                     COMMAND gzip -9n -c ${CFGD_MAN_DIR}/${page} > ${CFGD_MAN_DIR}/${page}.gz
                     DEPENDS ${CFGD_MAN_DIR}/${page} VERBATIM)
  list(APPEND compressed ${CFGD_MAN_DIR}/${page}.gz)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${CFGD_MAN_DIR}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
          COMPONENT ${CFGD_MAN_COMPONENT_${page}})
endforeach()
add_custom_target(man ALL DEPENDS ${compressed})

# The pages render without a warning, and cfgctl(1) names every option of cfgctl's usage; the
# test runs cfgctl --help, so host builds only.
if(CFGD_TESTS AND NOT CMAKE_CROSSCOMPILING)
  add_test(NAME man_pages COMMAND bash ${PROJECT_SOURCE_DIR}/tests/man/man_test.sh ${CFGD_MAN_DIR}
                                  $<TARGET_FILE:cfgctl>)
endif()
