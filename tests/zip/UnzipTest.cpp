// Unpacks the committed archives under tests/fixtures/archives/ (made by
// scripts/make-archive-fixtures); each has one defined outcome.
#include <pelkit/zip/Unzip.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace pelkit::zip {
namespace {

namespace fs = std::filesystem;

const std::string beforeText = "extracted before the bad entry\n";

// The fixture script's big_text(): large enough to take several read chunks.
std::string bigText(int lines) {
    std::string text;
    for (int n = 0; n < lines; ++n)
        text += "line " + std::to_string(n % 997) + "\n";
    return text;
}

std::string contents(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

void writeText(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

bool existsOrDangles(const fs::path& path) {
    return fs::exists(fs::symlink_status(path));
}

class Unzip : public ::testing::Test {
protected:
    static fs::path archive(const std::string& name) {
        return test::fixturesDirectory() / "archives" / name;
    }
    fs::path destination() const { return dir.path() / "project"; }
    Result<> unpack(const std::string& name) { return unzipFile(archive(name), destination()); }

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
        EXPECT_EQ(contents(destination() / path), text) << path << " has other contents";
    }
    EXPECT_TRUE(fs::is_directory(destination() / "images"));
}

TEST_F(Unzip, ArchivesThatCannotBeOpenedAreSkippedAsSuccess) {
    for (const auto* name : {"not_a_zip.zip", "truncated.zip", "missing.zip"}) {
        fs::create_directories(destination());
        EXPECT_TRUE(unpack(name).has_value()) << name << " was not skipped";
        EXPECT_TRUE(fs::is_empty(destination())) << name << " extracted something";
    }
}

TEST_F(Unzip, WrongChecksumsDoNotStopExtraction) {
    ASSERT_TRUE(unpack("crc_mismatch.zip").has_value());
    EXPECT_EQ(contents(destination() / "stored.txt"), "stored with a wrong checksum\n");
    EXPECT_EQ(contents(destination() / "big.txt"), bigText(40000));
}

struct BadEntry {
    const char* archive;
    int code;
    std::string description;
    fs::path mustNotExist; // relative paths are taken from the test's temp directory
};

TEST_F(Unzip, BadEntryEndsUnpackingKeepingEarlierEntries) {
    const BadEntry cases[] = {
        {"zip_slip.zip", 18, "unzipFile(../evil.txt): entry path leaves the destination",
         "evil.txt"},
        {"zip_slip_nested.zip", 18,
         "unzipFile(images/../../evil.txt): entry path leaves the destination", "evil.txt"},
        {"absolute_path.zip", 18,
         "unzipFile(/tmp/pelkit-archive-fixture-evil.txt): entry path leaves the destination",
         "/tmp/pelkit-archive-fixture-evil.txt"},
        {"destination_itself.zip", 18, "unzipFile(./): entry path names the destination itself",
         "project/after.txt"},
        {"symlink.zip", 28, "unzipFile(link): symbolic link entries are not extracted",
         "project/link"},
        {"corrupt_data.zip", 13, "zip_fread(broken.bin): Zlib error: data error (13)",
         "project/broken.bin"},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.archive);
        fs::remove_all(destination());
        ASSERT_FALSE(existsOrDangles(dir.path() / bad.mustNotExist)) << "left over before the run";

        const auto result = unpack(bad.archive);

        ASSERT_FALSE(result.has_value()) << "the bad entry was accepted";
        EXPECT_EQ(result.error()->domain(), "zip");
        EXPECT_EQ(result.error()->code(), bad.code);
        EXPECT_EQ(result.error()->description(), bad.description);
        EXPECT_EQ(contents(destination() / "before.txt"), beforeText)
            << "an entry before the bad one was rolled back";
        EXPECT_FALSE(existsOrDangles(destination() / "after.txt"))
            << "unpacking went on after the bad entry";
        EXPECT_FALSE(existsOrDangles(dir.path() / bad.mustNotExist))
            << "the bad entry left something on disk";
    }
}

TEST_F(Unzip, WhateverExistsAtAnEntryPathIsReplaced) {
    writeText(destination() / "configuration.json/old/settings.json", "a directory tree");
    writeText(destination() / "empty.txt", "old contents");
    writeText(destination() / "images/stale.jpg", "under a directory entry");
    writeText(dir.path() / "outside.txt", "must survive");
    fs::create_symlink(dir.path() / "outside.txt", destination() / "big.txt");

    ASSERT_TRUE(unpack("normal.zip").has_value());

    EXPECT_EQ(contents(destination() / "configuration.json"), "{\"name\": \"fixture\"}\n");
    EXPECT_EQ(contents(destination() / "empty.txt"), "");
    EXPECT_FALSE(fs::exists(destination() / "images/stale.jpg"))
        << "a directory entry removes the directory that was there";
    EXPECT_FALSE(fs::is_symlink(destination() / "big.txt"));
    EXPECT_EQ(contents(destination() / "big.txt"), bigText(40000));
    EXPECT_EQ(contents(dir.path() / "outside.txt"), "must survive")
        << "extraction wrote through a link on disk";
}

TEST_F(Unzip, EntryBelowAFileEndsUnpackingWithTheFileSystemError) {
    writeText(destination() / "docs", "a file where a directory is needed");

    const auto result = unpack("normal.zip");

    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error()->domain(), "posix");
    EXPECT_EQ(result.error()->code(), ENOTDIR);
    EXPECT_EQ(result.error()->description(), "remove_all(" +
                                                 (destination() / "docs/readme.txt").string() +
                                                 "): Not a directory (20)");
    EXPECT_TRUE(fs::exists(destination() / "images/caf\xc3\xa9.jpg"));
    EXPECT_EQ(contents(destination() / "docs"), "a file where a directory is needed");
    EXPECT_FALSE(fs::exists(destination() / "empty.txt"));
}

} // namespace
} // namespace pelkit::zip
