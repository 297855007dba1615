#include <pelkit/foundation/Resources.h>

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

std::vector<std::filesystem::path> searchDirectories() {
    std::vector<std::filesystem::path> directories;
    if (const char* own = std::getenv("PELKIT_RESOURCES_DIR"); own && *own)
        directories.emplace_back(own);
#ifdef PELKIT_BUILD_RESOURCES_DIR
    directories.emplace_back(PELKIT_BUILD_RESOURCES_DIR);
#endif
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error)
        directories.push_back(executable.parent_path().parent_path() / "share" / "pelkit");
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
