# The system libraries under PELkit's libraries: the one list to extend when a module links a new
# one. pelkitConfig.cmake finds each again in a consumer (a static PELkit needs all of them when a
# host links), pelkit.pc names their pkg-config modules, and the Debian package depends on their
# development packages.
#
#   pelkit_dependency(<Package> [<version>] [PC <modules>] [LIBS <flags>] [DEB <packages>] [PUBLIC])
#       find_dependency(<Package> [<version>]), for a target such as CURL::libcurl
#   pelkit_dependency(PkgConfig::<name> PC <modules> [DEB <packages>])
#       pkg_check_modules(<name> IMPORTED_TARGET <modules>), as the module's CMakeLists does
#
# PC names the pkg-config modules, LIBS the link flags of a library that has none, DEB the Debian
# packages that provide them; PUBLIC marks what PELkit's public headers include.
pelkit_dependency(Threads LIBS -pthread PUBLIC)
pelkit_dependency(nlohmann_json 3 PC nlohmann_json DEB nlohmann-json3-dev PUBLIC)
pelkit_dependency(glm PC glm DEB libglm-dev PUBLIC)
pelkit_dependency(CURL PC libcurl DEB libcurl4-openssl-dev)
pelkit_dependency(PNG PC libpng DEB libpng-dev)
pelkit_dependency(JPEG PC libjpeg DEB libjpeg62-turbo-dev)
pelkit_dependency(PkgConfig::utf8proc PC libutf8proc DEB libutf8proc-dev)
pelkit_dependency(PkgConfig::libzip PC libzip DEB libzip-dev)
pelkit_dependency(PkgConfig::ffmpeg PC libavformat libavcodec libswscale libswresample libavutil
    DEB libavformat-dev libavcodec-dev libswscale-dev libswresample-dev libavutil-dev)
pelkit_dependency(PkgConfig::sdl2 PC sdl2 DEB libsdl2-dev)
pelkit_dependency(PkgConfig::egl PC egl DEB libegl-dev)
pelkit_dependency(PkgConfig::glesv2 PC glesv2 DEB libgles-dev)
pelkit_dependency(OpenCV PC opencv4 DEB libopencv-dev)
pelkit_dependency(PkgConfig::sdl2_ttf PC SDL2_ttf DEB libsdl2-ttf-dev)
pelkit_dependency(PkgConfig::ar_ffmpeg PC libavformat libavcodec libswscale libavutil
    DEB libavformat-dev libavcodec-dev libswscale-dev libavutil-dev)
