#include <pelkit/foundation/FileSystem.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace pelkit {
namespace {

using test::ScopedEnv;
using test::TempDir;

TEST(DocumentsDirectory, PrefersOwnVariableThenXdgThenHome) {
    ScopedEnv home("HOME", "/home/ada");
    {
        ScopedEnv own("PELKIT_DOCUMENTS_DIR", "/srv/docs");
        ScopedEnv xdg("XDG_DATA_HOME", "/xdg");
        EXPECT_EQ(documentsDirectory(), "/srv/docs");
    }
    {
        ScopedEnv own("PELKIT_DOCUMENTS_DIR", "");
        ScopedEnv xdg("XDG_DATA_HOME", "/xdg");
        EXPECT_EQ(documentsDirectory(), "/xdg/pelkit/Documents");
    }
    ScopedEnv own("PELKIT_DOCUMENTS_DIR", "");
    ScopedEnv xdg("XDG_DATA_HOME", "");
    EXPECT_EQ(documentsDirectory(), "/home/ada/.local/share/pelkit/Documents");
}

TEST(FileSystem, ReadsBackWhatWasWrittenAndNamesFailedCalls) {
    TempDir dir;
    Bytes payload(300000);
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<std::uint8_t>(i * 7);
    ASSERT_TRUE(writeFile(dir / "plain.bin", payload));
    EXPECT_EQ(readFile(dir / "plain.bin").value(), payload);
    ASSERT_TRUE(writeFileAtomically(dir / "atomic.bin", payload));
    EXPECT_EQ(readFile(dir / "atomic.bin").value(), payload);
    ASSERT_TRUE(writeFileAtomically(dir / "empty", std::string_view{}));
    EXPECT_TRUE(readFile(dir / "empty").value().empty());

    auto missing = readFile(dir / "missing");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error()->description(),
              "open(" + (dir / "missing").string() + "): No such file or directory (2)");
    EXPECT_EQ(readFile(dir.path()).error()->code(), EISDIR);
}

TEST(FileSystem, FailedAtomicWriteLeavesNothingBehind) {
    TempDir dir;
    auto result = writeFileAtomically(dir / "no-such-dir" / "file", std::string_view("x"));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error()->domain(), "posix");
    EXPECT_EQ(result.error()->code(), ENOENT);

    // A directory standing at the target: the rename fails, the temporary file is removed.
    std::filesystem::create_directory(dir / "taken");
    std::filesystem::create_directory(dir / "taken" / "child");
    ASSERT_FALSE(writeFileAtomically(dir / "taken", std::string_view("x")));
    int entries = 0;
    for ([[maybe_unused]] auto& entry : std::filesystem::directory_iterator(dir.path()))
        ++entries;
    EXPECT_EQ(entries, 1) << "a temporary file was left beside the target";
}

TEST(FileSystem, ReaderNeverSeesAHalfWrittenFile) {
    TempDir dir;
    const std::string first(1 << 20, 'a'), second(1 << 20, 'b');
    auto path = dir / "configuration.json";
    ASSERT_TRUE(writeFileAtomically(path, first));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 40; ++i)
            ASSERT_TRUE(writeFileAtomically(path, i % 2 ? first : second));
        stop = true;
    });
    int reads = 0;
    while (!stop) {
        auto bytes = readFile(path);
        ASSERT_TRUE(bytes) << bytes.error()->description();
        std::string_view text = textOf(*bytes);
        ASSERT_TRUE(text == first || text == second)
            << "read a mix or a part, size " << text.size();
        ++reads;
    }
    writer.join();
    EXPECT_GT(reads, 0);
}

} // namespace
} // namespace pelkit
