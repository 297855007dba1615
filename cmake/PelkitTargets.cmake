# Shared settings of every PELkit target: warnings, and the include root.
add_library(pelkit_warnings INTERFACE)
target_compile_options(pelkit_warnings INTERFACE -Wall -Wextra -Wpedantic
    $<$<BOOL:${PELKIT_WERROR}>:-Werror>)

# pelkit_add_module(<name> SOURCES ... LINKS ...) makes the library pelkit_<name> with the alias
# pelkit::<name>, public headers under include/pelkit/.
function(pelkit_add_module name)
    cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
    add_library(pelkit_${name} ${ARG_SOURCES})
    add_library(pelkit::${name} ALIAS pelkit_${name})
    target_include_directories(pelkit_${name} PUBLIC ${PROJECT_SOURCE_DIR}/include
        PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(pelkit_${name} PUBLIC ${ARG_PUBLIC} PRIVATE ${ARG_PRIVATE} pelkit_warnings)
endfunction()

# pelkit_add_test(<name> SOURCES ... LINKS ...) makes a GoogleTest executable registered with CTest.
function(pelkit_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LINKS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_LINKS} pelkit_testsupport GTest::gtest_main
        pelkit_warnings)
    gtest_discover_tests(${name} WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
        PROPERTIES ENVIRONMENT "PELKIT_TEST_FIXTURES=${PROJECT_SOURCE_DIR}/tests/fixtures"
        DISCOVERY_TIMEOUT 60)
endfunction()
