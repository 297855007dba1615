# `cmake --build build --target docs`: the API reference of the public headers, in
# build/docs/html, opening on the README's install and library sections. Any Doxygen warning
# fails the target.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
    return()
endif()

# The main page: the README's first paragraph, then its "Install" and "Use the library" sections.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/README.md)
file(READ ${PROJECT_SOURCE_DIR}/README.md readme)
string(REGEX MATCH "\n\n[^\n#][^#]*\n\n" introduction "${readme}")
set(main_page "# PELkit {#mainpage}\n${introduction}")
foreach(section "Install" "Use the library")
    string(FIND "${readme}" "\n## ${section}\n" start)
    if(start EQUAL -1)
        message(FATAL_ERROR "README.md has no \"## ${section}\" section for the API reference")
    endif()
    math(EXPR start "${start} + 1")
    string(SUBSTRING "${readme}" ${start} -1 rest)
    string(FIND "${rest}" "\n## " end)
    string(SUBSTRING "${rest}" 0 ${end} text)
    string(APPEND main_page "\n${text}\n")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/docs/main-page.md "${main_page}")

set(DOXYGEN_PROJECT_NAME PELkit)
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/docs)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_BINARY_DIR}/docs/main-page.md)
set(DOXYGEN_STRIP_FROM_INC_PATH ${PROJECT_SOURCE_DIR}/include)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR}/include)
set(DOXYGEN_EXTRACT_ALL YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_WARN_AS_ERROR YES)
set(DOXYGEN_QUIET YES)
doxygen_add_docs(docs ${PROJECT_SOURCE_DIR}/include/pelkit ${PROJECT_BINARY_DIR}/docs/main-page.md
    COMMENT "API reference in ${PROJECT_BINARY_DIR}/docs/html")
