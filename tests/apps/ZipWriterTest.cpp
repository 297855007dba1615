// Writes archives and reads them back, with pelkit's own unpacker and with libzip for what the
// unpacker does not show (compression methods, entry counts).
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/zip/Unzip.h>
#include <pelkit/zip/ZipWriter.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <zip.h>

namespace pelkit::zip {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
    auto bytes = readFile(path);
    return bytes ? std::string(textOf(*bytes)) : "<unreadable>";
}

class ZipWriter : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(dir / "sources"); }
    fs::path source(const std::string& name, const std::string& text) {
        EXPECT_TRUE(writeFileAtomically(dir / "sources" / name, text).has_value());
        return dir / "sources" / name;
    }
    /// The compression method of each entry, in archive order; empty if it does not open.
    std::vector<int> methods() const {
        std::vector<int> found;
        int error = 0;
        if (zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error)) {
            zip_stat_t stat;
            for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i)
                found.push_back(zip_stat_index(archive, i, 0, &stat) == 0 ? stat.comp_method : -1);
            zip_discard(archive);
        }
        return found;
    }

    test::TempDir dir;
    fs::path path = dir / "targets.zip";
};

TEST_F(ZipWriter, ArchiveReplacesWhateverIsThereAndUnpacksToTheSameFiles) {
    ASSERT_TRUE(writeFileAtomically(path, std::string("not an archive")).has_value());
    std::string photo(300 * 1024, '\0'); // several unpack chunks
    for (std::size_t i = 0; i < photo.size(); ++i)
        photo[i] = static_cast<char>(i * 7919 % 251);
    const std::vector<ArchiveEntry> entries{{source("photo.jpg", photo), "poster.jpg"},
                                            {source("notes.txt", "plain text\n"), "docs/notes.txt"},
                                            {source("empty.bin", ""), "empty.bin"}};
    ASSERT_TRUE(writeArchive(path, entries).has_value());

    ASSERT_TRUE(unzipFile(path, dir / "unpacked").has_value());
    EXPECT_TRUE(contents(dir / "unpacked" / "poster.jpg") == photo);
    EXPECT_EQ(contents(dir / "unpacked" / "docs/notes.txt"), "plain text\n");
    EXPECT_EQ(contents(dir / "unpacked" / "empty.bin"), "");
    EXPECT_EQ(methods(), (std::vector<int>{ZIP_CM_STORE, ZIP_CM_DEFLATE, ZIP_CM_DEFLATE}))
        << "by type: the JPEG is stored, the rest deflated";
}

TEST_F(ZipWriter, CompressionChoosesStoreOrDeflatePerEntry) {
    const std::string text(10000, 'a');
    const std::vector<ArchiveEntry> entries{{source("b.PNG", text), "b"},
                                            {source("c.mp4", text), "c"},
                                            {source("d.m4a", text), "d"},
                                            {source("e", text), "e"}};
    const std::pair<Compression, std::vector<int>> cases[] = {
        {Compression::ByType, {ZIP_CM_STORE, ZIP_CM_STORE, ZIP_CM_STORE, ZIP_CM_DEFLATE}},
        {Compression::Store, {ZIP_CM_STORE, ZIP_CM_STORE, ZIP_CM_STORE, ZIP_CM_STORE}},
        {Compression::Deflate, {ZIP_CM_DEFLATE, ZIP_CM_DEFLATE, ZIP_CM_DEFLATE, ZIP_CM_DEFLATE}},
    };
    for (const auto& [compression, expected] : cases) {
        ASSERT_TRUE(writeArchive(path, entries, compression).has_value());
        EXPECT_EQ(methods(), expected) << "compression " << static_cast<int>(compression);
    }

    ASSERT_TRUE(writeArchive(path, {}).has_value());
    EXPECT_EQ(fs::file_size(path), 22u) << "an empty list gives the bare end record";
    EXPECT_TRUE(unzipFile(path, dir / "unpacked").has_value());
}

TEST_F(ZipWriter, RefusesBadNamesAndSourcesAndKeepsThePreviousArchive) {
    const auto good = source("good.jpg", "good");
    ASSERT_TRUE(writeArchive(path, std::vector<ArchiveEntry>{{good, "good.jpg"}}).has_value());
    const auto before = contents(path);
    const auto missing = dir / "sources" / "missing.jpg";
    const auto folder = dir / "sources" / "folder";
    fs::create_directories(folder);

    struct Case {
        std::vector<ArchiveEntry> entries;
        std::string domain;
        int code;
        std::string description;
    };
    const Case cases[] = {
        {{{good, ""}}, "zip", 18, "writeArchive(): entry name is empty"},
        {{{good, "/etc/a.jpg"}}, "zip", 18, "writeArchive(/etc/a.jpg): entry name is absolute"},
        {{{good, "a.jpg"}, {good, "a.jpg"}},
         "zip",
         18,
         "writeArchive(a.jpg): entry name is repeated"},
        {{{good, "a.jpg"}, {missing, "b.jpg"}},
         "posix",
         2,
         "open(" + missing.string() + "): No such file or directory (2)"},
        {{{folder, "folder"}}, "posix", 21, "open(" + folder.string() + "): Is a directory (21)"},
    };
    for (const auto& c : cases) {
        const auto written = writeArchive(path, c.entries);
        ASSERT_FALSE(written.has_value()) << c.description;
        EXPECT_EQ(written.error()->domain(), c.domain);
        EXPECT_EQ(written.error()->code(), c.code);
        EXPECT_EQ(written.error()->description(), c.description);
        EXPECT_EQ(contents(path), before) << "a refused write must leave the old archive";
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 2)
            << "only sources/ and the archive; no temporary file after: " << c.description;
    }
}

} // namespace
} // namespace pelkit::zip
