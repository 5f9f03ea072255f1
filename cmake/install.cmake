# What a package holds: two libraries with their headers, the daemon, the tool, their pages, and the ways to find them.
include(CMakePackageConfigHelpers)

set(VELIA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/veliaxdr)

install(TARGETS veliaxdr veliasupport EXPORT veliaxdrTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS rvzd_server DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS veliactl DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS velia-sample-server DESTINATION ${CMAKE_INSTALL_LIBEXECDIR})
install(FILES samples/echo_server.c DESTINATION ${CMAKE_INSTALL_DATADIR}/veliaxdr/samples)

# The completion scripts are what the tool prints; where it alone was built, they are made now.
foreach(PAIR bash:veliactl zsh:_veliactl fish:veliactl.fish)
  string(REPLACE ":" ";" PAIR ${PAIR})
  list(GET PAIR 0 SHELL)
  list(GET PAIR 1 NAME)
  set(FILE ${CMAKE_BINARY_DIR}/cli/completion/${NAME})
  install(CODE "
    if(NOT EXISTS \"${FILE}\")
      file(MAKE_DIRECTORY \"${CMAKE_BINARY_DIR}/cli/completion\")
      execute_process(COMMAND \"$<TARGET_FILE:veliactl>\" completion ${SHELL} OUTPUT_FILE \"${FILE}\"
                      COMMAND_ERROR_IS_FATAL ANY)
    endif()")
endforeach()
install(FILES ${CMAKE_BINARY_DIR}/cli/completion/veliactl DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${CMAKE_BINARY_DIR}/cli/completion/_veliactl DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
install(FILES ${CMAKE_BINARY_DIR}/cli/completion/veliactl.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
install(DIRECTORY include/veliaxdr include/support DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT veliaxdrTargets NAMESPACE veliaxdr:: DESTINATION ${VELIA_CMAKE_DIR})

# Relative, so that a package that was moved is still found whole.
file(RELATIVE_PATH VELIA_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(MODULE libveliaxdr libveliasupport)
  configure_file(packaging/${MODULE}.pc.in ${MODULE}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${MODULE}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

configure_package_config_file(packaging/veliaxdrConfig.cmake.in veliaxdrConfig.cmake INSTALL_DESTINATION ${VELIA_CMAKE_DIR})
write_basic_package_version_file(veliaxdrConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/veliaxdrConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/veliaxdrConfigVersion.cmake
        DESTINATION ${VELIA_CMAKE_DIR})

# The unit names paths, and the prefix is known when it is installed. What an administrator has written stays.
foreach(NAME SBINDIR SYSCONFDIR)
  set(VELIA_${NAME} ${CMAKE_INSTALL_${NAME}})
endforeach()
configure_file(cmake/install_service.cmake.in install_service.cmake @ONLY)
install(SCRIPT ${CMAKE_CURRENT_BINARY_DIR}/install_service.cmake)
install(FILES packaging/velia.sysusers.conf DESTINATION lib/sysusers.d RENAME velia.conf)
install(FILES packaging/vim/syntax/velia.vim DESTINATION ${CMAKE_INSTALL_DATADIR}/vim/vimfiles/syntax)
install(FILES packaging/vim/ftdetect/velia.vim DESTINATION ${CMAKE_INSTALL_DATADIR}/vim/vimfiles/ftdetect)
install(FILES packaging/textmate/velia.tmLanguage.json DESTINATION ${CMAKE_INSTALL_DATADIR}/veliaxdr/textmate)
install(FILES doc/man/veliactl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES doc/man/rvzd_server.conf.5 doc/man/velia-files.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES doc/man/rvzd_server.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
