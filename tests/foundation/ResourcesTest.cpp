#include <pelkit/foundation/Resources.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fstream>

namespace pelkit {
namespace {

TEST(Resources, OwnDirectoryComesFirstThenTheBuildTree) {
    test::TempDir dir;
    std::ofstream(dir / "play.png") << "own";
    std::ofstream(dir / "extra.png") << "own";
    {
        test::ScopedEnv own("PELKIT_RESOURCES_DIR", dir.path().string());
        EXPECT_EQ(resourcePath("play", "png"), dir / "play.png");
        EXPECT_EQ(resourcePath("extra", "png"), dir / "extra.png");
        // What the directory lacks still comes from the build tree.
        auto pause = resourcePath("pause", "png");
        ASSERT_TRUE(pause);
        EXPECT_NE(pause->parent_path(), dir.path());
    }
    test::ScopedEnv unset("PELKIT_RESOURCES_DIR", "");
    for (const char* name : {"play", "pause"}) {
        auto path = resourcePath(name, "png");
        ASSERT_TRUE(path) << name;
        EXPECT_EQ(path->filename(), std::string(name) + ".png");
        EXPECT_TRUE(std::filesystem::is_regular_file(*path));
    }
    EXPECT_FALSE(resourcePath("extra", "png"));
}

TEST(Resources, MissingOrUnsafeNamesGiveNothing) {
    test::TempDir dir;
    std::filesystem::create_directory(dir / "folder.png");
    std::ofstream(dir / "inner.png") << "x";
    test::ScopedEnv own("PELKIT_RESOURCES_DIR", dir.path().string());
    struct Case {
        std::string_view name, extension;
    };
    for (auto [name, extension] :
         {Case{"missing", "png"}, Case{"play", "jpg"}, Case{"folder", "png"}, Case{"", "png"},
          Case{"play", ""}, Case{"../play", "png"}, Case{"..", "png"},
          Case{std::string_view("inner\0x", 7), "png"}, Case{"inner", "png/"}})
        EXPECT_FALSE(resourcePath(name, extension)) << name << "." << extension;
}

} // namespace
} // namespace pelkit
