#include <pelkit/foundation/Resources.h>

#include <dlfcn.h>

#include <cstdlib>
#include <system_error>
#include <vector>

namespace pelkit {
namespace {

// A resource name is one file name; anything that could walk elsewhere is not a resource.
bool isPlainName(std::string_view text) {
    return !text.empty() &&
           text.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos &&
           text != "." && text != "..";
}

#ifdef PELKIT_SHARED_LIBRARY
// Any object of this library: its address tells dladdr which file the library was loaded from.
const char libraryMarker = 0;
#endif

std::optional<std::filesystem::path> runningExecutable() {
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error)
        return std::nullopt;
    return executable;
}

// The file this code runs from: the shared library, or the program a static library is linked
// into. Both are absolute and free of symbolic links, as the loader and the kernel give them.
std::optional<std::filesystem::path> ownFile() {
#ifdef PELKIT_SHARED_LIBRARY
    Dl_info info{};
    if (dladdr(&libraryMarker, &info) != 0 && info.dli_fname != nullptr && *info.dli_fname != 0) {
        std::error_code error;
        auto library = std::filesystem::canonical(info.dli_fname, error);
        if (!error)
            return library;
    }
#endif
    return runningExecutable();
}

// The build tree's copy serves only code running from the build tree: an installed copy of the
// library must find the installed resources, not those of the tree it was built in.
bool runsFromBuildTree(const std::filesystem::path& file) {
    std::error_code error;
    auto buildDir = std::filesystem::canonical(PELKIT_BUILD_DIR, error);
    if (error)
        return false;
    auto relative = file.lexically_relative(buildDir);
    return !relative.empty() && *relative.begin() != "..";
}

std::vector<std::filesystem::path> searchDirectories() {
    std::vector<std::filesystem::path> directories;
    if (const char* own = std::getenv("PELKIT_RESOURCES_DIR"); own && *own)
        directories.emplace_back(own);
    if (auto file = ownFile()) {
        if (runsFromBuildTree(*file))
            directories.emplace_back(PELKIT_BUILD_RESOURCES_DIR);
#ifdef PELKIT_SHARED_LIBRARY
        directories.push_back(
            (file->parent_path() / PELKIT_LIBRARY_TO_RESOURCES).lexically_normal());
#else
        directories.push_back(
            (file->parent_path() / PELKIT_PROGRAM_TO_RESOURCES).lexically_normal());
#endif
    }
    directories.emplace_back(PELKIT_INSTALLED_RESOURCES_DIR);
    return directories;
}

} // namespace

std::optional<std::filesystem::path> resourcePath(std::string_view name,
                                                  std::string_view extension) {
    if (!isPlainName(name) || !isPlainName(extension))
        return std::nullopt;
    std::string fileName = std::string(name) + "." + std::string(extension);
    for (const auto& directory : searchDirectories()) {
        auto candidate = directory / fileName;
        std::error_code error;
        if (std::filesystem::is_regular_file(candidate, error))
            return candidate;
    }
    return std::nullopt;
}

} // namespace pelkit
