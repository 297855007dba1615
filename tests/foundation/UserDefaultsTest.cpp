#include <pelkit/foundation/Text.h>
#include <pelkit/foundation/UserDefaults.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace pelkit {
namespace {

class UserDefaultsTest : public testing::Test {
protected:
    test::TempDir dir;
    std::filesystem::path file = dir / "defaults.json";
    UserDefaults defaults{file};
};

TEST_F(UserDefaultsTest, StoresReplacesAndRemovesAnyBytes) {
    const std::string latin1Key = "lastUpdated" + std::string("Caf\xE9-\xFF\x80", 7);
    const std::pair<std::string, std::string> entries[] = {
        {"lastUpdatedKEY", "2026-11-01T10:00:00Z"},
        {"lastUpdatedKEY", ""}, // an empty string is a value, not a removal
        {latin1Key, "2026-11-01T10:00:00Z"},
        {"lastUpdated\xC3\xA9t\xC3\xA9", std::string("r\xE9v\0!", 5)},
    };
    for (const auto& [key, value] : entries) {
        ASSERT_TRUE(defaults.set(key, value));
        EXPECT_EQ(UserDefaults(file).string(key), value) << "not read back as stored: " << key;
    }
    ASSERT_TRUE(defaults.set(latin1Key, std::nullopt));
    EXPECT_EQ(UserDefaults(file).string(latin1Key), std::nullopt);
    EXPECT_EQ(UserDefaults(file).string("lastUpdatedKEY"), "");
}

TEST(UserDefaults, StandardStoreCannotBeAProjectDirectory) {
    test::TempDir documents;
    test::ScopedEnv env("PELKIT_DOCUMENTS_DIR", documents.path().string());
    const auto& file = UserDefaults::standard().file();
    EXPECT_EQ(file.parent_path(), documents.path());
    auto name = file.filename().string();
    EXPECT_NE(characterPrefix(name, 20), name) << "an app key's prefix can name " << name;
}

TEST_F(UserDefaultsTest, SeesWhatAnotherProcessWroteAndKeepsWhatItDidNot) {
    ASSERT_TRUE(defaults.set("lastUpdatedA", "rev-1"));
    std::fflush(stdout);
    if (pid_t child = ::fork(); child == 0)
        ::_exit(UserDefaults(file).set("lastUpdatedB", "rev-2") ? 0 : 1);
    else
        ::waitpid(child, nullptr, 0);
    EXPECT_EQ(defaults.string("lastUpdatedB"), "rev-2") << "a change by another process was missed";
    EXPECT_EQ(defaults.string("lastUpdatedA"), "rev-1") << "the other process dropped an older key";
}

TEST_F(UserDefaultsTest, ConcurrentWritersInOneProcessLoseNothing) {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int key = t * 100; key < t * 100 + 10; ++key)
                ASSERT_TRUE(defaults.set(std::to_string(key), "v"));
        });
    threads.clear();
    UserDefaults fresh(file);
    for (int key = 0; key < 400; ++key)
        ASSERT_EQ(fresh.string(std::to_string(key)),
                  key % 100 < 10 ? std::optional<std::string>("v") : std::nullopt);
}

TEST_F(UserDefaultsTest, FailedReadOrWriteKeepsEveryValueAndSaysWhy) {
    ASSERT_TRUE(defaults.set("lastUpdatedA", "rev-1"));
    // A directory where the file goes: reading it fails, and so does replacing it.
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    EXPECT_EQ(defaults.string("lastUpdatedA"), "rev-1") << "a failed read dropped the values";
    auto result = defaults.set("lastUpdatedB", "rev-2");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error()->domain(), "posix");
    EXPECT_EQ(defaults.string("lastUpdatedB"), "rev-2");

    // A store that was deleted (with the projects, say) is empty, not brought back.
    std::filesystem::remove(file);
    ASSERT_TRUE(defaults.set("lastUpdatedC", "rev-3"));
    EXPECT_EQ(UserDefaults(file).string("lastUpdatedA"), std::nullopt);
}

} // namespace
} // namespace pelkit
