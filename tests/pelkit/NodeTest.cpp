// The content node base against a real server: when a node presents, what it asks the server, and
// what it prints when the answer is of no use.
#include <pelkit/PELNode.h>
#include <pelkit/net/HttpSession.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

namespace pelkit::test {
namespace {

const std::string kAppKey = "app-key-1";

/// Records each presentation with the thread it ran on.
class RecordingNode final : public PELNode {
public:
    struct Presentation {
        std::string url;
        std::thread::id thread;
    };

    RecordingNode(std::string targetId, std::optional<net::Url> filePath)
        : PELNode(kAppKey, std::move(targetId), "c7", 0.2, 0.1, std::move(filePath), 0.05, -0.05) {}

    void presentContent(const net::Url& url) override {
        std::lock_guard lock(mutex_);
        presented_.push_back({url.absoluteString(), std::this_thread::get_id()});
    }
    std::vector<Presentation> presented() const {
        std::lock_guard lock(mutex_);
        return presented_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Presentation> presented_;
};

/// A prepare endpoint whose answer depends on the target id: "ok" and "held" (which waits for
/// `release()`) answer the path "/files/a.png", the others fail in the way their name says.
class PELNodeTest : public ::testing::Test {
    // Declared before the server, so a request still arriving while the server stops finds it.
    Gate held_;

protected:
    PELNodeTest() {
        server.server.Get(R"(/targets/([^/]+)/content/c7/preparecontent)",
                          [this](const httplib::Request& request, httplib::Response& response) {
                              answer(request.matches[1], response);
                          });
        server.start();
        host.emplace("PELKIT_HOST", server.baseUrl());
    }
    ~PELNodeTest() override { release(); }

    void release() { held_.open(); }
    std::vector<SeenRequest> requests() const { return server.requests(); }
    std::size_t requestsFor(const std::string& targetId) const {
        auto all = requests();
        return std::ranges::count_if(all, [&](const SeenRequest& r) {
            return r.path.starts_with("/targets/" + targetId + "/");
        });
    }

    HttpTestServer server;
    std::optional<ScopedEnv> host;

private:
    void answer(const std::string& targetId, httplib::Response& response) {
        if (targetId == "held")
            held_.wait();
        if (targetId == "ok" || targetId == "held")
            response.set_content("/files/a.png", "text/plain");
        else if (targetId == "missing")
            response.status = 404;
        else if (targetId == "empty")
            response.set_content("", "text/plain");
        else if (targetId == "quoted")
            response.set_content("\"/files/a.png\"", "application/json");
        else if (targetId == "cut") // announces more than it sends, then drops the connection
            response.set_content_provider(64, "text/plain",
                                          [](std::size_t, std::size_t, auto&) { return false; });
    }
};

/// Waits until the shared session's completions submitted so far have run.
void drainCompletions() {
    net::HttpSession::shared().callbackQueue().sync([] {});
}

TEST_F(PELNodeTest, AFilePathPresentsDuringCreateAndOnlyANodeWithoutOneAsksTheServerOnce) {
    auto given = PELNode::create<RecordingNode>("ok", net::Url::parse("https://cdn.example/a.png"));
    auto presented = given->presented();
    ASSERT_EQ(presented.size(), 1u) << "a node with a file path presents before create returns";
    EXPECT_EQ(presented[0].url, "https://cdn.example/a.png");
    EXPECT_EQ(presented[0].thread, std::this_thread::get_id());

    auto asking = PELNode::create<RecordingNode>("held", std::nullopt);
    ASSERT_TRUE(waitUntil([&] { return requests().size() == 1; }));
    asking->prepareContent(); // ignored: the first request is still outstanding
    release();
    ASSERT_TRUE(waitUntil([&] { return !asking->presented().empty(); }));
    drainCompletions();

    auto seen = requests();
    ASSERT_EQ(seen.size(), 1u) << "only the node without a file path asks, and only once";
    EXPECT_EQ(seen[0].method, "GET");
    EXPECT_EQ(seen[0].path, "/targets/held/content/c7/preparecontent");
    EXPECT_EQ(seen[0].header("Content-Type"), "application/json");
    EXPECT_EQ(seen[0].header("appkey"), kAppKey);
    presented = asking->presented();
    ASSERT_EQ(presented.size(), 1u);
    EXPECT_EQ(presented[0].url, server.baseUrl() + "/files/a.png")
        << "the answer is a path on the server that was asked";
    EXPECT_NE(presented[0].thread, std::this_thread::get_id())
        << "a prepared address is presented on the HTTP completion thread";

    // An empty answer is data all the same, as for the configuration: the bare address is shown.
    auto empty = PELNode::create<RecordingNode>("empty", std::nullopt);
    ASSERT_TRUE(waitUntil([&] { return !empty->presented().empty(); }));
    EXPECT_EQ(empty->presented()[0].url, server.baseUrl());
}

TEST_F(PELNodeTest, AFailedPreparationPrintsItsLinePresentsNothingAndLetsTheNodeAskAgain) {
    const std::pair<std::string, std::string> printing[] = {
        {"missing", "Response StatusCode: 404"},
        {"quoted", "provided data was not a correct url"},
    };
    for (const auto& [targetId, line] : printing) {
        LineCapture lines;
        auto node = PELNode::create<RecordingNode>(targetId, std::nullopt);
        ASSERT_TRUE(waitUntil([&] { return !lines.lines().empty(); })) << targetId;
        drainCompletions(); // the completion that printed has returned
        node->prepareContent();
        ASSERT_TRUE(waitUntil([&] { return lines.lines().size() == 2; }))
            << targetId << ": a failure must clear isPreparing, so a new call asks again";
        drainCompletions();
        EXPECT_EQ(lines.lines(), (std::vector<std::string>{line, line})) << targetId;
        EXPECT_EQ(requestsFor(targetId), 2u) << targetId;
        EXPECT_TRUE(node->presented().empty()) << targetId;
    }

    // A transport failure prints nothing, so only asking again shows that the node is free.
    LineCapture lines;
    auto node = PELNode::create<RecordingNode>("cut", std::nullopt);
    EXPECT_TRUE(waitUntil([&] {
        node->prepareContent();
        return requestsFor("cut") >= 2;
    })) << "a transport failure must clear isPreparing";
    drainCompletions();
    EXPECT_TRUE(lines.lines().empty());
    EXPECT_TRUE(node->presented().empty());
}

TEST(PELNodeDeathTest, BrokenContractsStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto file = net::Url::parse("https://cdn.example/a.png");
    EXPECT_DEATH(PELNode::create<PELNode>(kAppKey, "t", "c", 1.0, 1.0, file, 0.0, 0.0),
                 "Fatal error: presentContent must be overwritten by subnode");
    EXPECT_DEATH(PELNode::create<RecordingNode>("a b", std::nullopt),
                 "Fatal error: PELNode.prepareContent: the prepare address '[^']*/targets/a "
                 "b/content/c7/preparecontent' is not a URL");
}

} // namespace
} // namespace pelkit::test
