// Unpacks the committed archives under tests/fixtures/archives/ (made by
// scripts/make-archive-fixtures), each with one defined outcome, and archives made here.
#include <pelkit/zip/Unzip.h>
#include <pelkit/zip/ZipWriter.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

namespace pelkit::zip {
namespace {

namespace fs = std::filesystem;

// The fixture script's big_text(): large enough to take several read chunks.
std::string bigText(int lines) {
    std::string text;
    for (int n = 0; n < lines; ++n)
        text += "line " + std::to_string(n % 997) + "\n";
    return text;
}

void writeText(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

std::set<std::string> namesIn(const fs::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory))
        names.insert(entry.path().filename().string());
    return names;
}

class Unzip : public ::testing::Test {
protected:
    static fs::path archive(const std::string& name) {
        return test::fixturesDirectory() / "archives" / name;
    }
    fs::path destination() const { return dir.path() / "project"; }
    Result<> unpack(const std::string& name, const UnpackLimits& limits = {}) {
        return unzipFile(archive(name), destination(), limits);
    }

    test::TempDir dir;
};

TEST_F(Unzip, NormalArchiveIsUnpackedWithSubdirectories) {
    ASSERT_TRUE(unpack("normal.zip").has_value());
    const std::pair<const char*, std::string> expected[] = {
        {"configuration.json", "{\"name\": \"fixture\"}\n"},
        {"images/a.jpg",
         std::string("\xff\xd8\xff\xe0 not really a jpeg \x00\x01\x02\xff\xd9", 28)},
        {"images/sub/b.png", "\x89PNG\r\n\x1a\n fixture bytes"},
        {"images/caf\xc3\xa9.jpg", "accented name\n"},
        {"docs/readme.txt", "no directory entry above this one\n"},
        {"empty.txt", ""},
        {"big.txt", bigText(40000)},
    };
    for (const auto& [path, text] : expected) {
        EXPECT_TRUE(fs::is_regular_file(destination() / path)) << path << " is not a file";
        EXPECT_EQ(test::fileText(destination() / path), text) << path << " has other contents";
    }
}

TEST_F(Unzip, UnreadableArchivesAreSkippedAndChecksumsIgnored) {
    for (const auto* name : {"not_a_zip.zip", "truncated.zip", "missing.zip"}) {
        fs::create_directories(destination());
        EXPECT_TRUE(unpack(name).has_value()) << name << " was not skipped";
        EXPECT_TRUE(fs::is_empty(destination())) << name << " extracted something";
    }
    ASSERT_TRUE(unpack("crc_mismatch.zip").has_value());
    EXPECT_EQ(test::fileText(destination() / "stored.txt"), "stored with a wrong checksum\n");
    EXPECT_EQ(test::fileText(destination() / "big.txt"), bigText(40000));
}

// Each archive holds "before.txt", a bad entry, then "after.txt". A "broken.bin" from the last
// good archive is on disk first; "corrupt_data.zip" fails while extracting its own "broken.bin".
TEST_F(Unzip, BadEntryEndsUnpackingKeepingEarlierEntriesAndTheLastGoodFiles) {
    const struct {
        const char* archive;
        int code;
        std::string description;
        fs::path outside; // where the entry would have gone outside the destination
    } cases[] = {
        {"zip_slip.zip", 18, "unzipFile(../evil.txt): entry path leaves the destination",
         dir.path() / "evil.txt"},
        {"zip_slip_nested.zip", 18,
         "unzipFile(images/../../evil.txt): entry path leaves the destination",
         dir.path() / "evil.txt"},
        {"absolute_path.zip", 18,
         "unzipFile(/tmp/pelkit-archive-fixture-evil.txt): entry path leaves the destination",
         "/tmp/pelkit-archive-fixture-evil.txt"},
        {"destination_itself.zip",
         18,
         "unzipFile(./): entry path names the destination itself",
         {}},
        {"symlink.zip", 28, "unzipFile(link): symbolic link entries are not extracted", {}},
        {"corrupt_data.zip", 13, "zip_fread(broken.bin): Zlib error: data error (13)", {}},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.archive);
        fs::remove_all(destination());
        writeText(destination() / "broken.bin", "last good");

        const auto result = unpack(bad.archive);

        ASSERT_FALSE(result.has_value()) << "the bad entry was accepted";
        EXPECT_EQ(result.error()->domain(), "zip");
        EXPECT_EQ(result.error()->code(), bad.code);
        EXPECT_EQ(result.error()->description(), bad.description);
        EXPECT_EQ(test::fileText(destination() / "before.txt"), "extracted before the bad entry\n");
        EXPECT_EQ(test::fileText(destination() / "broken.bin"), "last good");
        EXPECT_EQ(namesIn(destination()), (std::set<std::string>{"before.txt", "broken.bin"}))
            << "the bad entry, a temporary file or a later entry was left";
        if (!bad.outside.empty()) {
            EXPECT_FALSE(fs::exists(fs::symlink_status(bad.outside))) << "written outside";
        }
    }
}

TEST_F(Unzip, WhateverExistsAtAnEntryPathIsReplaced) {
    writeText(destination() / "configuration.json/old/settings.json", "a directory tree");
    writeText(destination() / "empty.txt", "old contents");
    writeText(destination() / "images/stale.jpg", "under a directory entry");
    writeText(dir.path() / "outside.txt", "must survive");
    fs::create_symlink(dir.path() / "outside.txt", destination() / "big.txt");

    ASSERT_TRUE(unpack("normal.zip").has_value());

    EXPECT_EQ(test::fileText(destination() / "configuration.json"), "{\"name\": \"fixture\"}\n");
    EXPECT_EQ(test::fileText(destination() / "empty.txt"), "");
    EXPECT_FALSE(fs::exists(destination() / "images/stale.jpg"))
        << "a directory entry removes the directory that was there";
    EXPECT_FALSE(fs::is_symlink(destination() / "big.txt"));
    EXPECT_EQ(test::fileText(destination() / "big.txt"), bigText(40000));
    EXPECT_EQ(test::fileText(dir.path() / "outside.txt"), "must survive")
        << "extraction wrote through a link on disk";
}

// Archives made here from zeros, which deflate about a thousandfold.
TEST_F(Unzip, ArchivesExpandingBeyondTheLimitsAreRefusedBeforeAnythingIsWritten) {
    const auto bomb = dir.path() / "bomb.zip";
    const struct {
        std::uintmax_t zeros;
        UnpackLimits limits;
        std::string error; // empty when the archive is unpacked
    } cases[] = {
        {1 << 20, {}, ""}, // small entries may expand as they like
        {8 << 20,
         {},
         "unzipFile(zeros.bin): entry expands to 8388608 bytes, more than 200 times its stored "
         "size"},
        {8 << 20, {.maxUnpackedBytes = 8 << 20, .maxExpansionRatio = 5000}, ""},
        {8 << 20,
         {.maxUnpackedBytes = (8 << 20) - 1, .maxExpansionRatio = 5000},
         "unzipFile(" + bomb.string() +
             "): entries expand to more than the limit of 8388607 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.zeros);
        fs::remove_all(destination());
        std::ofstream(dir.path() / "zeros").close();
        fs::resize_file(dir.path() / "zeros", c.zeros);
        const ArchiveEntry entries[] = {{dir.path() / "zeros", "zeros.bin"}};
        ASSERT_TRUE(writeArchive(bomb, entries, Compression::Deflate));

        const auto result = unzipFile(bomb, destination(), c.limits);

        EXPECT_EQ(result ? "" : result.error()->description(), c.error);
        if (result) {
            EXPECT_EQ(fs::file_size(destination() / "zeros.bin"), c.zeros);
        } else {
            EXPECT_EQ(result.error()->code(), 18);
            EXPECT_FALSE(fs::exists(destination())) << "something was written";
        }
    }
}

} // namespace
} // namespace pelkit::zip
