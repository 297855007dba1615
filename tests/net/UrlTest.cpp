#include <pelkit/foundation/FileSystem.h>
#include <pelkit/net/Url.h>

#include "Redirects.h"
#include "TestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace pelkit::net {
namespace {

nlohmann::json table(const std::string& name) {
    auto bytes = readFile(test::fixturesDirectory() / "urls" / name);
    if (!bytes)
        ADD_FAILURE() << "cannot read the table: " << *bytes.error();
    return bytes ? nlohmann::json::parse(textOf(*bytes)) : nlohmann::json::object();
}

TEST(Url, AcceptsTheTableOfValidUrlsWithTheirComponents) {
    auto urls = table("urls.json");
    ASSERT_FALSE(urls["accepted"].empty());
    for (const auto& row : urls["accepted"]) {
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
    auto urls = table("urls.json");
    ASSERT_FALSE(urls["rejected"].empty());
    for (const auto& row : urls["rejected"]) {
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

TEST(Redirects, FollowOnlyHttpNeverDowngradeAndSendHeadersOnlyToTheOrigin) {
    auto redirects = table("redirects.json");
    ASSERT_FALSE(redirects["followed"].empty() || redirects["refused"].empty());
    for (const auto& row : redirects["followed"]) {
        auto step =
            redirectStep(row["requested"].get<std::string>(), row["answered"].get<std::string>(),
                         row["location"].get<std::string>());
        ASSERT_TRUE(step) << "refused a redirect: " << row["why"].get<std::string>();
        EXPECT_EQ(step->url, row["url"].get<std::string>()) << row["why"].get<std::string>();
        EXPECT_EQ(step->headers,
                  row["headers"] == "sent" ? RequestHeaders::Sent : RequestHeaders::Dropped)
            << "headers of a redirect: " << row["why"].get<std::string>();
    }
    for (const auto& row : redirects["refused"]) {
        EXPECT_FALSE(redirectStep(row["requested"].get<std::string>(),
                                  row["answered"].get<std::string>(),
                                  row["location"].get<std::string>()))
            << "followed a redirect despite: " << row["why"].get<std::string>();
    }
}

} // namespace
} // namespace pelkit::net
