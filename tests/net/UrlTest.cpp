#include <pelkit/foundation/FileSystem.h>
#include <pelkit/net/Url.h>

#include "TestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace pelkit::net {
namespace {

nlohmann::json urlTable() {
    auto bytes = readFile(test::fixturesDirectory() / "urls" / "urls.json");
    if (!bytes)
        ADD_FAILURE() << "cannot read the URL table: " << *bytes.error();
    return bytes ? nlohmann::json::parse(textOf(*bytes)) : nlohmann::json::object();
}

TEST(Url, AcceptsTheTableOfValidUrlsWithTheirComponents) {
    auto table = urlTable();
    ASSERT_FALSE(table["accepted"].empty());
    for (const auto& row : table["accepted"]) {
        auto text = row["text"].get<std::string>();
        auto url = Url::parse(text);
        ASSERT_TRUE(url) << "rejected a valid URL: '" << text << "'";
        EXPECT_EQ(url->absoluteString(), text) << "the text must come back unchanged";
        EXPECT_EQ(url->scheme(), row["scheme"].get<std::string>()) << text;
        EXPECT_EQ(url->host(), row["host"].get<std::string>()) << text;
        EXPECT_EQ(url->path(), row["path"].get<std::string>()) << text;
        EXPECT_EQ(url->isFileUrl(), row["scheme"] == "file") << text;
    }
}

TEST(Url, RejectsTheTableOfInvalidUrls) {
    auto table = urlTable();
    ASSERT_FALSE(table["rejected"].empty());
    for (const auto& row : table["rejected"]) {
        auto text = row["text"].get<std::string>();
        EXPECT_FALSE(Url::parse(text))
            << "accepted '" << text << "' despite " << row["why"].get<std::string>();
    }
}

TEST(Url, FileUrlIsAbsoluteEscapedAndRoundTrips) {
    const std::filesystem::path path = "/tmp/pel kit/100% #1?/caf\xc3\xa9.zip";
    auto url = Url::fileUrl(path);
    EXPECT_EQ(url.absoluteString(), "file:///tmp/pel%20kit/100%25%20%231%3F/caf%C3%A9.zip");
    EXPECT_TRUE(url.isFileUrl());
    EXPECT_EQ(url.path(), path.string()) << "the decoded path must name the same file";
    EXPECT_EQ(Url::parse(url.absoluteString()), url) << "a file URL must parse again";
    EXPECT_EQ(Url::fileUrl("targets.zip").path(),
              (std::filesystem::current_path() / "targets.zip").string())
        << "a relative path is made absolute";
}

} // namespace
} // namespace pelkit::net
