#include <pelkit/foundation/FileSystem.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace pelkit {
namespace {

TEST(DocumentsDirectory, PrefersOwnVariableThenXdgThenHome) {
    struct Case {
        const char* own;
        const char* xdg;
        const char* expected;
    };
    test::ScopedEnv home("HOME", "/home/ada");
    for (const auto& c :
         {Case{"/srv/docs", "/xdg", "/srv/docs"}, Case{"", "/xdg", "/xdg/pelkit/Documents"},
          Case{"", "", "/home/ada/.local/share/pelkit/Documents"}}) {
        test::ScopedEnv own("PELKIT_DOCUMENTS_DIR", c.own), xdg("XDG_DATA_HOME", c.xdg);
        EXPECT_EQ(documentsDirectory(), c.expected);
    }
}

TEST(FileSystem, ReadsBackWhatWasWrittenAndNamesFailedCalls) {
    test::TempDir dir;
    Bytes payload(300000);
    for (std::size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<std::uint8_t>(i * 7);
    using Write = Result<> (*)(const std::filesystem::path&, const Bytes&);
    for (Write write : {Write(writeFile), Write(writeFileAtomically)}) {
        ASSERT_TRUE(write(dir / "file.bin", payload));
        EXPECT_EQ(readFile(dir / "file.bin").value(), payload);
        ASSERT_TRUE(write(dir / "empty", Bytes{}));
        EXPECT_TRUE(readFile(dir / "empty").value().empty());
    }
    EXPECT_EQ(readFile(dir / "missing").error()->description(),
              "open(" + (dir / "missing").string() + "): No such file or directory (2)");
    EXPECT_EQ(readFile(dir.path()).error()->code(), EISDIR);
}

TEST(FileSystem, FailedAtomicWriteLeavesNothingBehind) {
    test::TempDir dir;
    auto result = writeFileAtomically(dir / "no-such-dir" / "file", std::string_view("x"));
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error()->code(), ENOENT);

    // A directory standing at the target: the rename fails, the temporary file is removed.
    std::filesystem::create_directories(dir / "taken" / "child");
    ASSERT_FALSE(writeFileAtomically(dir / "taken", std::string_view("x")));
    auto entries = std::distance(std::filesystem::directory_iterator(dir.path()), {});
    EXPECT_EQ(entries, 1) << "a temporary file was left beside the target";
}

TEST(FileSystem, WriterKilledMidWriteLeavesThePreviousFile) {
    test::TempDir dir;
    auto path = dir / "configuration.json";
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("previous")));
    std::fflush(stdout);
    if (pid_t child = ::fork(); child == 0) {
        // The child may write at most 4 KiB; the oversized write kills it with SIGXFSZ half-way.
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        (void)writeFileAtomically(path, std::string(1 << 20, 'x'));
        ::_exit(0);
    } else {
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << "the write went on";
    }
    EXPECT_EQ(textOf(readFile(path).value()), "previous") << "a reader can see a half-written file";
}

} // namespace
} // namespace pelkit
