# Included by the top-level CMakeLists when PELKIT_BUILD_FUZZERS is on, before any module, so that
# every target is built with coverage feedback and the sanitizers and the fuzzers see into the
# modules. scripts/fuzz configures this with Debian's clang-16.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang" OR CMAKE_CXX_COMPILER_VERSION VERSION_LESS 16)
    message(FATAL_ERROR "PELKIT_BUILD_FUZZERS needs clang 16 or later (libFuzzer, std::expected): "
                        "configure with -DCMAKE_CXX_COMPILER=clang++-16 -DCMAKE_C_COMPILER=clang-16")
endif()
add_compile_options(-fsanitize=fuzzer-no-link,address,undefined)
add_link_options(-fsanitize=address,undefined)
if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 19)
    # libstdc++ 12 offers std::expected only to a compiler that announces C++20 concepts in full.
    # Clang 16 implements what <expected> uses (conditionally trivial special members) but
    # announces an older version.
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-D__cpp_concepts=202002L>
                        $<$<COMPILE_LANGUAGE:CXX>:-Wno-macro-redefined>)
endif()
add_subdirectory(tests/fuzz)
