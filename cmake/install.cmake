install(TARGETS tty vc ttykit tty_static vc_static ttykit_static
        EXPORT ttyline-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/ttyline/kit.h include/ttyline/tty.h include/ttyline/vc.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ttyline)
# The pages of the programs are installed with the programs.
install(DIRECTORY man/man3 man/man7 DESTINATION ${CMAKE_INSTALL_MANDIR})

# Package files name everything relative to themselves, so that an installed
# tree can be moved.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ttyline)
install(EXPORT ttyline-targets NAMESPACE ttyline:: DESTINATION ${package_dir})
configure_package_config_file(
    cmake/ttyline-config.cmake.in
    ${PROJECT_BINARY_DIR}/ttyline-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/ttyline-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ttyline-config.cmake
              ${PROJECT_BINARY_DIR}/ttyline-config-version.cmake
        DESTINATION ${package_dir})

set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_to_prefix
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pkgconfig_to_prefix "${pkgconfig_to_prefix}")
foreach(face IN ITEMS tty vc ttykit)
  configure_file(cmake/lib${face}.pc.in lib${face}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/lib${face}.pc
          DESTINATION ${pkgconfig_dir})
endforeach()

# Units of the example daemons, with the paths of this installation.
if(TTYLINE_BUILD_PROGRAMS)
  foreach(unit IN ITEMS ttylined consoled)
    configure_file(systemd/ttyline-${unit}.service.in
        ttyline-${unit}.service @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/ttyline-${unit}.service
            DESTINATION lib/systemd/system)
  endforeach()
endif()
