// Writes archives and reads them back, with pelkit's own unpacker and with libzip for what the
// unpacker does not show (compression methods).
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/zip/Unzip.h>
#include <pelkit/zip/ZipWriter.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <zip.h>

namespace pelkit::zip {
namespace {

namespace fs = std::filesystem;

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

TEST_F(ZipWriter, EntriesUnpackToTheirSourcesStoredOrDeflatedAsAsked) {
    ASSERT_TRUE(writeFileAtomically(path, std::string("not an archive")).has_value());
    std::string photo(300 * 1024, '\0'); // several unpack chunks
    for (std::size_t i = 0; i < photo.size(); ++i)
        photo[i] = static_cast<char>(i * 7919 % 251);
    const std::vector<ArchiveEntry> entries{{source("photo.jpg", photo), "poster.jpg"},
                                            {source("b.PNG", "png"), "b"},
                                            {source("c.mp4", "mp4"), "docs/c"},
                                            {source("d.m4a", "m4a"), "d"},
                                            {source("notes", "plain text\n"), "notes.txt"},
                                            {source("empty", ""), "empty"}};
    constexpr int store = ZIP_CM_STORE;
    constexpr int deflate = ZIP_CM_DEFLATE;
    const std::pair<Compression, std::vector<int>> cases[] = {
        {Compression::ByType, {store, store, store, store, deflate, deflate}},
        {Compression::Store, {store, store, store, store, store, store}},
        {Compression::Deflate, {deflate, deflate, deflate, deflate, deflate, deflate}},
    };
    for (const auto& [compression, expected] : cases) {
        SCOPED_TRACE(static_cast<int>(compression));
        ASSERT_TRUE(writeArchive(path, entries, compression).has_value());
        EXPECT_EQ(methods(), expected);
        const auto into = dir / ("unpacked-" + std::to_string(static_cast<int>(compression)));
        ASSERT_TRUE(unzipFile(path, into).has_value());
        for (const auto& entry : entries)
            EXPECT_TRUE(test::fileText(into / entry.name) == test::fileText(entry.source))
                << entry.name;
    }

    ASSERT_TRUE(writeArchive(path, {}).has_value());
    EXPECT_EQ(fs::file_size(path), 22u) << "an empty list gives the bare end record";
    EXPECT_TRUE(unzipFile(path, dir / "unpacked").has_value());
}

TEST_F(ZipWriter, RefusesBadNamesAndSourcesAndKeepsThePreviousArchive) {
    const auto good = source("good.jpg", "good");
    ASSERT_TRUE(writeArchive(path, std::vector<ArchiveEntry>{{good, "good.jpg"}}).has_value());
    const auto before = test::fileText(path);
    const auto missing = dir / "sources" / "missing.jpg";
    const auto folder = dir / "sources" / "folder";
    fs::create_directories(folder);

    const std::tuple<std::vector<ArchiveEntry>, std::string, int, std::string> cases[] = {
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
    for (const auto& [entries, domain, code, description] : cases) {
        const auto written = writeArchive(path, entries);
        ASSERT_FALSE(written.has_value()) << description;
        EXPECT_EQ(written.error()->domain() + " " + std::to_string(written.error()->code()) + " " +
                      written.error()->description(),
                  domain + " " + std::to_string(code) + " " + description);
        EXPECT_EQ(test::fileText(path), before) << "a refused write must leave the old archive";
        EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 2)
            << "only sources/ and the archive; no temporary file after: " << description;
    }
}

} // namespace
} // namespace pelkit::zip
