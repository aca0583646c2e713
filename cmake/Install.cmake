# How the project installs: GNU install directories, one install component per Debian package
# (cmake/Packaging.cmake), a pkg-config file and a CMake package for every library.
#
# Components: <lib>-runtime holds what programs load (the versioned shared object), <lib>-dev
# what builds against it (headers, the unversioned link, archives, .pc and CMake files); each
# program has a component of its own, named after it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Programs find our shared libraries beside them, in <prefix>/<libdir>, wherever the tree was
# installed. RUNPATH (not RPATH), so that LD_LIBRARY_PATH can still put another libmsgpass first.
file(RELATIVE_PATH install_bin_to_lib /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
set(SETVANE_INSTALL_RPATH "$ORIGIN/${install_bin_to_lib}")

# Where <libdir> is a folder the loader searches anyway (the system prefix), no RUNPATH: the
# loader then finds our libraries through its cache at once, where a RUNPATH would first have it
# try several sub-folders of <libdir> on every start.
if("${CMAKE_INSTALL_FULL_LIBDIR}" IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
    set(SETVANE_INSTALL_RPATH "")
endif()

# Installs a program into `destination` (bin or sbin) as component `component`.
function(install_program target destination component)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${SETVANE_INSTALL_RPATH}")
    install(TARGETS ${target} RUNTIME DESTINATION ${destination} COMPONENT ${component})
endfunction()

# Writes the pkg-config file configured from `pc_template` (with @PC_UP@, the path from
# <libdir>/pkgconfig back to the prefix, so that an installed tree can be moved) into the
# development component `dev_component`.
function(install_pkg_config pc_template dev_component)
    file(RELATIVE_PATH PC_UP /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
    string(REGEX REPLACE "/$" "" PC_UP "${PC_UP}")
    get_filename_component(pc_name ${pc_template} NAME_WLE)
    configure_file(${pc_template} ${CMAKE_CURRENT_BINARY_DIR}/${pc_name} @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc_name}
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${dev_component})
endfunction()

# Installs a shared library of the project: the shared object into <name>-runtime; its public
# header, the link name and the pkg-config file into <name>-dev; the target into the export set
# <name>Targets (see install_cmake_package).
function(install_shared_library target pc_template)
    # It finds the project's libraries it needs beside itself, as the programs do.
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(TARGETS ${target} EXPORT ${target}Targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT ${target}-runtime NAMELINK_COMPONENT ${target}-dev
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT ${target}-dev)
    install_pkg_config(${pc_template} ${target}-dev)
endfunction()

# Installs the CMake package `name` (find_package(name)): the export set <name>Targets with the
# imported targets name::*, a version file, and a config file that first finds the packages
# named in DEPENDENCIES (find_dependency arguments, one string each).
function(install_cmake_package name)
    cmake_parse_arguments(package "" "VERSION" "DEPENDENCIES" ${ARGN})
    set(destination ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
    set(PACKAGE_NAME ${name})
    set(PACKAGE_DEPENDENCIES "")
    foreach(dependency IN LISTS package_DEPENDENCIES)
        string(APPEND PACKAGE_DEPENDENCIES "find_dependency(${dependency})\n")
    endforeach()
    configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/PackageConfig.cmake.in
        ${CMAKE_CURRENT_BINARY_DIR}/${name}Config.cmake INSTALL_DESTINATION ${destination})
    write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake
        VERSION ${package_VERSION} COMPATIBILITY SameMajorVersion)
    install(EXPORT ${name}Targets NAMESPACE ${name}:: DESTINATION ${destination}
        COMPONENT ${name}-dev)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}Config.cmake
                  ${CMAKE_CURRENT_BINARY_DIR}/${name}ConfigVersion.cmake
        DESTINATION ${destination} COMPONENT ${name}-dev)
endfunction()
