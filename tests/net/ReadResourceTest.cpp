#include <pelkit/net/HttpSession.h>
#include <pelkit/net/ReadResource.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fstream>
#include <future>

namespace pelkit::net {
namespace {

using namespace std::chrono_literals;

class ReadResource : public ::testing::Test {
protected:
    void SetUp() override {
        server.server.Get("/picture", [](const auto&, httplib::Response& reply) {
            reply.set_content("picture bytes", "image/png");
        });
        server.server.Get("/large", [](const auto&, httplib::Response& reply) {
            reply.set_content(std::string(5000, 'x'), "image/png");
        });
        server.server.Get("/moved", [this](const auto&, httplib::Response& reply) {
            reply.set_redirect(url("/picture"));
        });
        server.start();
        std::ofstream(dir / "local.png") << "local bytes";
    }
    std::string url(const std::string& path) const { return server.baseUrl() + path; }
    /// The bytes as text, or the error's description.
    static std::string outcome(const Result<Bytes>& read) {
        return read ? std::string(textOf(*read)) : "error: " + read.error()->description();
    }
    static std::string read(const std::string& text, ReadLimits limits = {}) {
        return outcome(readWholeResource(Url::parse(text).value(), limits));
    }

    test::HttpTestServer server;
    test::TempDir dir;
};

TEST_F(ReadResource, ReadsFilesAndHttpBodiesAndNamesFailures) {
    const std::string local = Url::fileUrl(dir / "local.png").absoluteString();
    const std::string missing = (dir / "missing.png").string();
    struct Case {
        std::string url;
        std::size_t maxBytes;
        std::string expected;
    };
    for (const auto& c : {
             Case{local, 100, "local bytes"},
             Case{"file://" + missing, 100,
                  "error: open(" + missing + "): No such file or directory (2)"},
             Case{url("/picture"), 100, "picture bytes"},
             Case{url("/moved"), 100, "picture bytes"},
             Case{url("/nothing"), 100,
                  "error: readWholeResource(" + url("/nothing") + "): HTTP status 404"},
             Case{url("/large"), 1000,
                  "error: readWholeResource(" + url("/large") + "): larger than 1000 bytes"},
             Case{"ftp://127.0.0.1/a.png", 100,
                  "error: readWholeResource(ftp://127.0.0.1/a.png): only file, http and https "
                  "URLs are read"},
             Case{"file:relative.png", 100,
                  "error: readWholeResource(file:relative.png): not an absolute file path"},
         })
        EXPECT_EQ(read(c.url, {.maxBytes = c.maxBytes}), c.expected) << c.url;
}

// The content nodes read their pictures from the shared session's completion queue; a read that
// went through that session would wait on the very queue it runs on.
TEST_F(ReadResource, CompletesInsideASharedSessionCompletion) {
    std::promise<std::string> inner;
    HttpSession::shared()
        .dataTask({Url::parse(url("/picture")).value(), {}},
                  [&](DataTaskResult) { inner.set_value(read(url("/picture"))); })
        ->resume();
    auto future = inner.get_future();
    ASSERT_EQ(future.wait_for(30s), std::future_status::ready);
    EXPECT_EQ(future.get(), "picture bytes");
}

} // namespace
} // namespace pelkit::net
