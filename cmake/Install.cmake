# What is installed: the programs with their manual pages and what completes their options in a shell, and the
# libraries that they share with the panel's other programs, with pkg-config files and a CMake package that lead to
# them.  The former are the component "program", the rest is "development".
include(CMakePackageConfigHelpers)

set(kolmo_rings kolmo_common kolmo_exec kolmo_panel kolmo_store_kit kolmo_responder_store kolmo_handlers_store)
set(kolmo_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/kolmo)
set(kolmo_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kolmo)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
set(kolmo_programs mail_responders_rebuild mail_responders_refresh mail_responders_verify)
foreach(program IN LISTS kolmo_programs)
  install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/man/${program}.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT program)
  install(FILES ${PROJECT_SOURCE_DIR}/completion/${program} COMPONENT program
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endforeach()

foreach(ring IN LISTS kolmo_rings)
  string(REPLACE kolmo_ "" export_name ${ring})
  set_target_properties(${ring} PROPERTIES EXPORT_NAME ${export_name})
endforeach()
install(TARGETS ${kolmo_rings} EXPORT kolmo
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${kolmo_include_dir}
  FILE_SET included DESTINATION ${kolmo_include_dir})
install(EXPORT kolmo NAMESPACE kolmo:: FILE kolmo-targets.cmake DESTINATION ${kolmo_package_dir})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kolmo-config.cmake.in
  ${PROJECT_BINARY_DIR}/kolmo-config.cmake INSTALL_DESTINATION ${kolmo_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kolmo-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kolmo-config.cmake ${PROJECT_BINARY_DIR}/kolmo-config-version.cmake
  DESTINATION ${kolmo_package_dir})

# Two files, so that a program which only reads the stores is not linked to the database's client.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  OUTPUT_VARIABLE kolmo_prefix_from_pkgconfig)
foreach(module kolmo-stores kolmo-panel)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${module}.pc.in ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
