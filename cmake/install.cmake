# What `cmake --install` puts where, and the two descriptions by which a host finds it.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/_rm)

install(FILES include/rm.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS rm_shared rm_static EXPORT _rm-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT _rm-targets NAMESPACE _rm:: DESTINATION ${package_dir})

configure_package_config_file(cmake/_rm-config.cmake.in ${PROJECT_BINARY_DIR}/_rm-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/_rm-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/_rm-config.cmake ${PROJECT_BINARY_DIR}/_rm-config-version.cmake
    DESTINATION ${package_dir})

# The .pc file finds its own prefix, so that an installed tree can be moved.
file(RELATIVE_PATH pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/_rm.pc.in ${PROJECT_BINARY_DIR}/_rm.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/_rm.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

foreach(tool IN ITEMS rmini rmheap rmipc)
    if(TARGET ${tool})
        install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
        install(FILES tools/${tool}/${tool}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
        install(FILES tools/${tool}/${tool}.bash RENAME ${tool}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    endif()
endforeach()

# The manual pages of the interface, in a tree in which `./run docs` has made them.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/build/docs/man/man3 ${PROJECT_SOURCE_DIR}/build/docs/man/man7
    DESTINATION ${CMAKE_INSTALL_MANDIR} OPTIONAL)
