# Installs a shared library of the project with its public header and its pkg-config file.
#
# `pc_template` is configured with @PC_UP@, the path from <libdir>/pkgconfig back to the install
# prefix, so that the installed .pc file finds its prefix wherever the tree was installed.
include(GNUInstallDirs)

function(install_shared_library target pc_template)
    file(RELATIVE_PATH PC_UP /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
    string(REGEX REPLACE "/$" "" PC_UP "${PC_UP}")
    get_filename_component(pc_name ${pc_template} NAME_WLE)
    configure_file(${pc_template} ${CMAKE_CURRENT_BINARY_DIR}/${pc_name} @ONLY)
    install(TARGETS ${target}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc_name}
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
