# The Debian packages: the components of install.cmake, each with what Debian requires of a package.
# scripts/package makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/finish_packages.cmake)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The packager's name comes from the variables of Debian's own tools.
if(DEFINED ENV{DEBFULLNAME} AND DEFINED ENV{DEBEMAIL})
    set(CPACK_PACKAGE_CONTACT "$ENV{DEBFULLNAME} <$ENV{DEBEMAIL}>")
else()
    set(CPACK_PACKAGE_CONTACT "vs_kvs maintainers <maintainers@vs-kvs.invalid>")
endif()

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE vs-kvs)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(own_version "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvs-kvs1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/shlibs ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "persistent state of a version-selection service
Keeps which version of each VS object is selected, which client processes use
it, and which objects each client job registered for. Changes are on disk when
the call returns, and every step leaves a trace record.
.
This package contains the library, and the platform library that it runs on.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvs-kvs-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libvs-kvs1 ${own_version}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "persistent state of a version-selection service (development files)
Keeps which version of each VS object is selected, which client processes use
it, and which objects each client job registered for.
.
This package contains the headers, pkg-config and CMake files, the manual page
of the operations, documentation, and an example program.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME vskvs)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libvs-kvs1 ${own_version}")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "tool for the persistent state of a version-selection service
Shows and changes VS objects, their clients and registrations, prints the trace
buffers as sentences, explains status codes, checks the databases against each
other, and saves and restores everything as JSON lines.")

include(CPack)
