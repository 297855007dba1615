#include <pelkit/foundation/UserDefaults.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace pelkit {
namespace {

using test::TempDir;

// Runs `body` in a child process and returns its wait status.
template <class Body> int inChildProcess(Body body) {
    pid_t pid = ::fork();
    if (pid == 0) {
        body();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
}

TEST(UserDefaults, StoresReplacesAndRemovesValues) {
    TempDir dir;
    UserDefaults defaults(dir / "prefs" / "defaults.json");
    EXPECT_EQ(defaults.string("lastUpdatedKEY"), std::nullopt);
    ASSERT_TRUE(defaults.set("lastUpdatedKEY", "2026-11-01T10:00:00Z"));
    ASSERT_TRUE(defaults.set("lastUpdatedKEY", ""));
    EXPECT_EQ(defaults.string("lastUpdatedKEY"), "") << "an empty string is a value, not a removal";
    ASSERT_TRUE(defaults.set("lastUpdatedKEY", std::nullopt));
    EXPECT_EQ(defaults.string("lastUpdatedKEY"), std::nullopt);
}

TEST(UserDefaults, ValuesSurviveTheProcessAndAreSeenByAnother) {
    TempDir dir;
    auto file = dir / "defaults.json";
    int status = inChildProcess([&] {
        UserDefaults writer(file);
        if (!writer.set("lastUpdatedA", "rev-1"))
            ::_exit(2);
    });
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    UserDefaults reader(file);
    EXPECT_EQ(reader.string("lastUpdatedA"), "rev-1");
    status = inChildProcess([&] {
        UserDefaults writer(file);
        (void)writer.set("lastUpdatedB", "rev-2");
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(reader.string("lastUpdatedB"), "rev-2") << "a change by another process was missed";
    EXPECT_EQ(reader.string("lastUpdatedA"), "rev-1") << "the other process dropped an older key";
}

TEST(UserDefaults, ProcessKilledMidWriteLeavesThePreviousValues) {
    TempDir dir;
    auto file = dir / "defaults.json";
    {
        UserDefaults defaults(file);
        ASSERT_TRUE(defaults.set("lastUpdatedA", "rev-1"));
    }
    // The child may write at most 4 KiB; the oversized write kills it with SIGXFSZ half-way.
    int status = inChildProcess([&] {
        struct rlimit limit {
            4096, 4096
        };
        ::setrlimit(RLIMIT_FSIZE, &limit);
        UserDefaults defaults(file);
        (void)defaults.set("lastUpdatedA", std::string(1 << 20, 'x'));
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child was expected to die during its write";
    EXPECT_EQ(WTERMSIG(status), SIGXFSZ);
    EXPECT_EQ(UserDefaults(file).string("lastUpdatedA"), "rev-1");
}

TEST(UserDefaults, ConcurrentWritersInOneProcessLoseNothing) {
    TempDir dir;
    UserDefaults defaults(dir / "defaults.json");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 25; ++i)
                ASSERT_TRUE(defaults.set("k" + std::to_string(t) + "-" + std::to_string(i),
                                         std::to_string(i)));
        });
    for (auto& thread : threads)
        thread.join();
    UserDefaults fresh(dir / "defaults.json");
    for (int t = 0; t < 4; ++t)
        for (int i = 0; i < 25; ++i)
            ASSERT_EQ(fresh.string("k" + std::to_string(t) + "-" + std::to_string(i)),
                      std::to_string(i));
}

TEST(UserDefaults, UnwritableStoreKeepsTheValueInMemoryAndSaysWhy) {
    TempDir dir;
    std::filesystem::create_directory(dir / "defaults.json"); // a directory where the file goes
    UserDefaults defaults(dir / "defaults.json");
    auto result = defaults.set("key", "value");
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error()->domain(), "posix");
    EXPECT_EQ(defaults.string("key"), "value");
}

} // namespace
} // namespace pelkit
