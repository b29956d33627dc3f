# What `cmake --install` puts where, in three components: what programs need to run, what they need
# to be built, and the tool.
include(CMakePackageConfigHelpers)

# Under /usr the loader finds the libraries by itself. Under any other prefix the library and the tool
# say where the rest lies relative to themselves, so that an installation runs as it stands, also after
# it was moved. A platform that was loaded first, or is in LD_LIBRARY_PATH, still takes precedence.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(pc_prefix /usr)
else()
    file(RELATIVE_PATH to_libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(vs_kvs PROPERTIES INSTALL_RPATH "$ORIGIN")
    set_target_properties(vskvs PROPERTIES INSTALL_RPATH "$ORIGIN/${to_libraries}")
    file(RELATIVE_PATH to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
    string(REGEX REPLACE "/$" "" to_prefix ${to_prefix})
    set(pc_prefix "\${pcfiledir}/${to_prefix}")
endif()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vs_kvs)
foreach(name vs_kvs vs_platform)
    configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
endforeach()
configure_package_config_file(cmake/vs_kvs-config.cmake.in vs_kvs-config.cmake
    INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(vs_kvs-config-version.cmake COMPATIBILITY SameMajorVersion)

install(TARGETS vs_kvs vs_platform EXPORT vs_kvs-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT runtime NAMELINK_COMPONENT development)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
install(EXPORT vs_kvs-targets NAMESPACE vs_kvs:: DESTINATION ${package_dir})
install(FILES ${PROJECT_BINARY_DIR}/vs_kvs-config.cmake
    ${PROJECT_BINARY_DIR}/vs_kvs-config-version.cmake DESTINATION ${package_dir})
install(FILES ${PROJECT_BINARY_DIR}/vs_kvs.pc ${PROJECT_BINARY_DIR}/vs_platform.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES include/vs_kvs.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY platform/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vs_platform)
install(FILES man/vs_kvs.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
# Each operation's name leads to the page.
file(STRINGS man/vs_kvs.3 prototypes REGEX "^(uint32_t|void) [a-z_]+\\(")
foreach(prototype IN LISTS prototypes)
    string(REGEX REPLACE "^[a-z0-9_]+ ([a-z_]+)\\(.*" "\\1" operation "${prototype}")
    file(CONFIGURE OUTPUT man3/${operation}.3 CONTENT ".so man3/vs_kvs.3\n")
    install(FILES ${PROJECT_BINARY_DIR}/man3/${operation}.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
endforeach()
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vs_kvs)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vs_kvs
    FILES_MATCHING PATTERN "*.c" PATTERN "*.h")

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tool)
install(TARGETS vskvs RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES man/vskvs.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES completions/vskvs.bash RENAME vskvs
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
