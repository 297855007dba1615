# The system libraries under PELkit's libraries: the one list to extend when a module links a new
# one. pelkitConfig.cmake finds each again in a consumer (a static PELkit needs all of them when a
# host links), and pelkit.pc names the same pkg-config modules.
#
#   pelkit_dependency(<Package> [<version>] [PC <modules>] [LIBS <flags>] [PUBLIC])
#       find_dependency(<Package> [<version>]), for a target such as CURL::libcurl
#   pelkit_dependency(PkgConfig::<name> PC <modules>)
#       pkg_check_modules(<name> IMPORTED_TARGET <modules>), as the module's CMakeLists does
#
# PC names the pkg-config modules, LIBS the link flags of a library that has none; PUBLIC marks
# what PELkit's public headers include.
pelkit_dependency(Threads LIBS -pthread PUBLIC)
pelkit_dependency(nlohmann_json 3 PC nlohmann_json PUBLIC)
pelkit_dependency(glm PC glm PUBLIC)
pelkit_dependency(CURL PC libcurl)
pelkit_dependency(PNG PC libpng)
pelkit_dependency(JPEG PC libjpeg)
pelkit_dependency(PkgConfig::utf8proc PC libutf8proc)
pelkit_dependency(PkgConfig::libzip PC libzip)
pelkit_dependency(PkgConfig::ffmpeg PC libavformat libavcodec libswscale libswresample libavutil)
pelkit_dependency(PkgConfig::sdl2 PC sdl2)
pelkit_dependency(PkgConfig::egl PC egl)
pelkit_dependency(PkgConfig::glesv2 PC glesv2)
