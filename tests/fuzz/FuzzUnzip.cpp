// Unpacks any bytes as a ZIP archive into a fresh directory. Whatever the archive holds, nothing
// appears beside the destination and no symbolic link is created in it.
#include <pelkit/zip/Unzip.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

// Holds the archive and the destination; removed with everything below it.
class Workspace {
public:
    Workspace() {
        std::string pattern = (fs::temp_directory_path() / "pelkit-fuzz-unzip-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        root_ = pattern;
    }
    ~Workspace() {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    fs::path archive() const { return root_ / "archive.zip"; }
    fs::path destination() const { return root_ / "out"; }

    // Only the archive and the destination: an entry that escaped would add a name here.
    bool holdsOnlyItsOwn() const {
        for (const auto& entry : fs::directory_iterator(root_)) {
            if (entry.path() != archive() && entry.path() != destination()) {
                return false;
            }
        }
        return true;
    }

    bool hasSymbolicLink() const {
        std::error_code error;
        for (auto it = fs::recursive_directory_iterator(destination(), error);
             !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
            if (it->is_symlink()) {
                return true;
            }
        }
        return false;
    }

private:
    fs::path root_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Workspace workspace;
    std::ofstream(workspace.archive(), std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    fs::create_directory(workspace.destination());
    (void)pelkit::zip::unzipFile(workspace.archive(), workspace.destination());
    if (!workspace.holdsOnlyItsOwn() || workspace.hasSymbolicLink()) {
        std::abort();
    }
    return 0;
}
