include(GNUInstallDirs)

# Shared settings of every PELkit target: warnings, and the include root.
add_library(pelkit_warnings INTERFACE)
target_compile_options(pelkit_warnings INTERFACE -Wall -Wextra -Wpedantic
    $<$<BOOL:${PELKIT_WERROR}>:-Werror>)

# With shared libraries, installed programs find them relative to themselves, so a prefix can be
# moved (or installed with `cmake --install --prefix`) as a whole.
if(BUILD_SHARED_LIBS AND NOT DEFINED CMAKE_INSTALL_RPATH)
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_BINDIR}
        OUTPUT_VARIABLE program_to_libraries)
    set(CMAKE_INSTALL_RPATH "$ORIGIN/${program_to_libraries}")
endif()

# pelkit_add_module(<name> SOURCES ... PUBLIC ... PRIVATE ...) makes the library pelkit_<name> with
# the alias pelkit::<name>, public headers under include/pelkit/, installed and exported as
# pelkit::<name> (see cmake/PelkitInstall.cmake). The framework's file is libpelkit, a platform
# module's libpelkit_<name>.
function(pelkit_add_module name)
    cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
    add_library(pelkit_${name} ${ARG_SOURCES})
    add_library(pelkit::${name} ALIAS pelkit_${name})
    target_include_directories(pelkit_${name}
        PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
               $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
        PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(pelkit_${name} PUBLIC ${ARG_PUBLIC}
        PRIVATE ${ARG_PRIVATE} $<BUILD_INTERFACE:pelkit_warnings>)
    # The public headers use std::expected: a host compiles them as C++23 too.
    target_compile_features(pelkit_${name} PUBLIC cxx_std_23)
    set(file_name pelkit_${name})
    if(name STREQUAL "pelkit")
        set(file_name pelkit)
    endif()
    set_target_properties(pelkit_${name} PROPERTIES EXPORT_NAME ${name} OUTPUT_NAME ${file_name}
        VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} INSTALL_RPATH "$ORIGIN")
    install(TARGETS pelkit_${name} EXPORT pelkitTargets)
    set_property(GLOBAL APPEND PROPERTY PELKIT_INSTALLED_MODULES ${name})
endfunction()

# pelkit_add_test(<name> [OWN_MAIN] SOURCES ... LINKS ...) makes a GoogleTest executable
# registered with CTest; with OWN_MAIN its sources define main().
function(pelkit_add_test name)
    cmake_parse_arguments(ARG "OWN_MAIN" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    if(ARG_OWN_MAIN)
        set(gtest GTest::gtest)
    else()
        set(gtest GTest::gtest_main)
    endif()
    target_link_libraries(${name} PRIVATE ${ARG_LINKS} pelkit_testsupport ${gtest}
        pelkit_warnings)
    gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
        PROPERTIES ENVIRONMENT "PELKIT_TEST_FIXTURES=${PROJECT_SOURCE_DIR}/tests/fixtures"
        DISCOVERY_TIMEOUT 60)
endfunction()
