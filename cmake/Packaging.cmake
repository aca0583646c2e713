# Debian packages of the install components, with CPack's DEB generator: one package per
# component (cmake/Install.cmake), built from the same tree and install rules as `cmake --install`.
# Library dependencies on Debian's packages come from dpkg-shlibdeps; those between our own
# packages are declared here, at this exact version.
#
# Build them from a tree configured for the system prefix: `cmake --workflow --preset package`
# (build/package/*.deb).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME setvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "setvane maintainers <maintainers@setvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "device configuration service and its tools")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own libraries are found in the build tree and left to the explicit dependencies below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_BINARY_DIR}/platform/msgpass ${CMAKE_BINARY_DIR}/client)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
set(CPACK_DEBIAN_PACKAGE_SECTION misc)

set(exact "(= ${PROJECT_VERSION})")

# name, section, dependencies, summary
function(setvane_package component name section depends summary)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name} PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}" PARENT_SCOPE)
endfunction()

setvane_package(msgpass-runtime libmsgpass1 libs ""
    "named endpoints and id-tagged messages between processes of one host")
setvane_package(msgpass-dev libmsgpass-dev libdevel "libmsgpass1 ${exact}"
    "named endpoints and id-tagged messages: development files")
setvane_package(logmsg-dev liblogmsg-dev libdevel ""
    "prioritised log records to the kernel log device: static library and header")
setvane_package(configclient-runtime libconfigclient1 libs "libmsgpass1 ${exact}"
    "client library of the device configuration service")
setvane_package(configclient-dev libconfigclient-dev libdevel
    "libconfigclient1 ${exact}, libmsgpass-dev ${exact}, libprotobuf-dev"
    "client library of the device configuration service: development files and schema")
setvane_package(setvane setvane admin "libmsgpass1 ${exact}"
    "read or write one variable of the device configuration service")
setvane_package(vanectl vanectl admin "libconfigclient1 ${exact}, libmsgpass1 ${exact}"
    "administer the device configuration service")
# deb-systemd-helper, which the maintainer scripts call, is in init-system-helpers; the unit
# reloads the model with /bin/kill, which is in procps.
setvane_package(configsrvc configsrvc admin
    "libmsgpass1 ${exact}, init-system-helpers (>= 1.54~), procps"
    "device configuration service")
set(CPACK_DEBIAN_CONFIGSRVC_PACKAGE_RECOMMENDS "setvane, vanectl")
set(CPACK_DEBIAN_SETVANE_PACKAGE_RECOMMENDS "bash-completion, vanectl")
set(CPACK_DEBIAN_VANECTL_PACKAGE_RECOMMENDS "bash-completion")

# The service is enabled and started on installation, stopped on removal, as Debian does for
# every service: the scripts are the ones debhelper writes for a unit.
set(maintainer_scripts ${PROJECT_SOURCE_DIR}/dist/debian/configsrvc)
set(CPACK_DEBIAN_CONFIGSRVC_PACKAGE_CONTROL_EXTRA
    ${maintainer_scripts}/conffiles ${maintainer_scripts}/postinst ${maintainer_scripts}/prerm
    ${maintainer_scripts}/postrm)
set(CPACK_DEBIAN_CONFIGSRVC_PACKAGE_CONTROL_STRICT_PERMISSION ON)

include(CPack)
