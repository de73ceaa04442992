# What is installed and where, by component: libraries, headers (with what a developer needs to link), programs, units,
# man, samples. The Debian packages are cut along these components.
include(CMakePackageConfigHelpers)

# The headers lie in a folder of their own, because "auditing" alone would be a greedy name in a shared include folder.
set(QEL_INSTALL_HEADERS ${CMAKE_INSTALL_INCLUDEDIR}/qelAuditing)
set(QEL_INSTALL_PACKAGE ${CMAKE_INSTALL_LIBDIR}/cmake/qelAuditing)

set_target_properties(qelCore PROPERTIES EXPORT_NAME core)
set_target_properties(qelNet PROPERTIES EXPORT_NAME net)
set_target_properties(qelAuditing PROPERTIES EXPORT_NAME auditing)
foreach(library qelCore qelNet qelAuditing)
  target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${QEL_INSTALL_HEADERS}>)
  target_compile_features(${library} INTERFACE cxx_std_20)
  # The three libraries find each other wherever they are put together.
  set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
endforeach()
install(TARGETS qelCore qelNet qelAuditing EXPORT qelAuditingTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libraries NAMELINK_COMPONENT headers)

install(DIRECTORY include/auditing framework/core/include/qelCore framework/net/include/qelNet
  DESTINATION ${QEL_INSTALL_HEADERS} COMPONENT headers FILES_MATCHING PATTERN "*.h")

install(EXPORT qelAuditingTargets NAMESPACE qel:: DESTINATION ${QEL_INSTALL_PACKAGE} COMPONENT headers)
configure_package_config_file(cmake/qelAuditingConfig.cmake.in ${PROJECT_BINARY_DIR}/qelAuditingConfig.cmake
  INSTALL_DESTINATION ${QEL_INSTALL_PACKAGE} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qelAuditingConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qelAuditingConfig.cmake ${PROJECT_BINARY_DIR}/qelAuditingConfigVersion.cmake
  DESTINATION ${QEL_INSTALL_PACKAGE} COMPONENT headers)

# The prefix is told relative to the file, so that an installed tree can be moved.
file(RELATIVE_PATH QEL_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/qelAuditing.pc.in ${PROJECT_BINARY_DIR}/qelAuditing.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qelAuditing.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT headers)

if(TARGET qel-audit)
  install(TARGETS qel-audit RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT programs)
endif()
if(TARGET qel-auditd)
  install(TARGETS qel-auditd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT programs)
endif()

file(GLOB units CONFIGURE_DEPENDS packaging/*.service packaging/*.timer)
install(FILES ${units} DESTINATION lib/systemd/system COMPONENT units)
install(FILES packaging/qel-auditd.sysusers DESTINATION lib/sysusers.d RENAME qel-auditd.conf COMPONENT units)
install(FILES packaging/qel-audit.sysusers DESTINATION lib/sysusers.d RENAME qel-audit.conf COMPONENT units)
install(PROGRAMS packaging/report DESTINATION lib/qel-audit COMPONENT units)

foreach(section 1 5 8)
  file(GLOB pages CONFIGURE_DEPENDS docs/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT man)
endforeach()

file(GLOB samples CONFIGURE_DEPENDS packaging/*.toml packaging/*.yml packaging/*.json packaging/*.default
  packaging/postgresql/*.sql)
install(FILES ${samples} DESTINATION ${CMAKE_INSTALL_DATADIR}/qel-audit COMPONENT samples)
install(FILES packaging/completion/qel-audit DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT programs)
