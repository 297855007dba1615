# What `cmake --install` adds to the libraries (pelkit_add_module), the programs (each app's
# install line) and the resources (src/platform/foundation): the public headers, and what a
# consumer finds them with, pelkitConfig.cmake for CMake and pelkit.pc for pkg-config. Included
# once every module is added.
include(CMakePackageConfigHelpers)

# Only include/pelkit is public; the modules' own headers stay beside their sources.
install(DIRECTORY include/pelkit TYPE INCLUDE)

set(PELKIT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/pelkit)
install(EXPORT pelkitTargets NAMESPACE pelkit:: DESTINATION ${PELKIT_CMAKE_DIR})
# The dependency list goes into the config file itself, so that a missing dependency ends the
# search for pelkit there and then.
file(READ cmake/pelkitDependencies.cmake PELKIT_DEPENDENCIES)
configure_package_config_file(cmake/pelkitConfig.cmake.in pelkitConfig.cmake
    INSTALL_DESTINATION ${PELKIT_CMAKE_DIR})
# Before 1.0 a minor release may change the interface.
write_basic_package_version_file(pelkitConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pelkitConfig.cmake
    ${PROJECT_BINARY_DIR}/pelkitConfigVersion.cmake DESTINATION ${PELKIT_CMAKE_DIR})

# pelkit.pc. A static archive cannot carry its dependencies, so with static libraries (the
# default) every system library is required by each link; with shared ones only what the public
# headers include is, and the rest is left to `pkg-config --static`.
function(pelkit_write_pkg_config)
    macro(pelkit_dependency first)
        cmake_parse_arguments(ARG "PUBLIC" "" "PC;LIBS;DEB" ${ARGN})
        set_property(GLOBAL APPEND PROPERTY PELKIT_DEBIAN_PACKAGES ${ARG_DEB})
        if(ARG_PUBLIC OR NOT BUILD_SHARED_LIBS)
            list(APPEND PELKIT_PC_REQUIRES ${ARG_PC})
            list(APPEND PELKIT_PC_LIBS ${ARG_LIBS})
        else()
            list(APPEND PELKIT_PC_REQUIRES_PRIVATE ${ARG_PC})
            list(APPEND PELKIT_PC_LIBS_PRIVATE ${ARG_LIBS})
        endif()
    endmacro()
    # Each library before those it uses: modules are added after the ones they depend on.
    get_property(modules GLOBAL PROPERTY PELKIT_INSTALLED_MODULES)
    list(REVERSE modules)
    set(PELKIT_PC_LIBS)
    foreach(module IN LISTS modules)
        get_target_property(file_name pelkit_${module} OUTPUT_NAME)
        list(APPEND PELKIT_PC_LIBS -l${file_name})
    endforeach()
    include(cmake/pelkitDependencies.cmake)
    foreach(field REQUIRES REQUIRES_PRIVATE LIBS LIBS_PRIVATE)
        list(JOIN PELKIT_PC_${field} " " PELKIT_PC_${field})
    endforeach()
    foreach(dir LIBDIR INCLUDEDIR)
        set(PELKIT_PC_${dir} ${CMAKE_INSTALL_${dir}})
        if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_${dir}})
            set(PELKIT_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
        endif()
    endforeach()
    # The prefix is the one installed to, known only then (`cmake --install --prefix`, packaging).
    set(PELKIT_PC_PREFIX "@PELKIT_PC_PREFIX@")
    configure_file(cmake/pelkit.pc.in pelkit.pc.in @ONLY)
    install(CODE "set(PELKIT_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
        configure_file(\"${PROJECT_BINARY_DIR}/pelkit.pc.in\" \"${PROJECT_BINARY_DIR}/pelkit.pc\"
            @ONLY)")
    install(FILES ${PROJECT_BINARY_DIR}/pelkit.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
pelkit_write_pkg_config()
