#include "MediaTestSupport.h"

#include <pelkit/foundation/FileSystem.h>

#include <gtest/gtest.h>

#include <optional>

namespace pelkit::test {
namespace {

using media::Player;
using media::PlayerItem;
using media::Status;
using media::TimeControlStatus;

// counter.mp4: frame N is (10N, 64, 250 - 10N) everywhere; 25 frames and a tone.
constexpr Point kCentre{160, 120};
constexpr Rgb kCounterFirst{0, 63, 249};
constexpr Rgb kCounterLast{239, 63, 9};
// green-screen.mp4: a grey subject, 80 pixels wide, moving right by 4 pixels a frame from x 100
// over pure green; this point is on the subject in the first frame and on the green in the last.
constexpr Point kSubjectStart{140, 120};
constexpr Rgb kGreen{0, 255, 0};
constexpr Rgb kSubject{128, 128, 128};

int counterIndex(const image::Image& frame) {
    return (colourAt(frame, kCentre).r + 5) / 10;
}

/// Serves the media fixtures over HTTP on 127.0.0.1 (with byte ranges, so seeking works).
struct MediaServer : HttpTestServer {
    MediaServer() {
        server.set_mount_point("/media", (fixturesDirectory() / "media").string());
        start();
    }
    std::string url(const std::string& name) const { return baseUrl() + "/media/" + name; }
};

class PlayerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { useDummyAudioDriver(); }

    /// Gives the player a new item for `url` and waits until the item is ready or failed.
    std::shared_ptr<PlayerItem> load(const std::string& url) {
        auto item = PlayerItem::create(url);
        player->replaceCurrentItem(item);
        EXPECT_TRUE(waitUntil([&] { return item->status() != Status::unknown; })) << url;
        return item;
    }

    std::shared_ptr<Player> player = std::make_shared<Player>();
};

// --- playing to the end ----------------------------------------------------------------------

struct EndCase {
    const char* name;
    const char* fixture;
    bool overHttp;
    /// Where to look, and what the first and last frames show there; no point for sound only.
    std::optional<Point> probe;
    Rgb first, last;

    friend void PrintTo(const EndCase& c, std::ostream* out) { *out << c.name; }
};

class PlaysToTheEnd : public PlayerTest, public ::testing::WithParamInterface<EndCase> {};

TEST_P(PlaysToTheEnd, PostsTheEndOnceFromItsOwnThreadAndRewindsToTheFirstFrame) {
    const EndCase& c = GetParam();
    MediaServer server;
    auto item = load(c.overHttp ? server.url(c.fixture) : mediaFixtureUrl(c.fixture));
    ASSERT_EQ(item->status(), Status::readyToPlay) << *item->error();
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::paused);
    if (c.probe) {
        ASSERT_TRUE(player->currentFrame()) << "a ready item shows its first frame";
        EXPECT_PRED2(near, colourAt(*player->currentFrame(), *c.probe), c.first);
    } else {
        EXPECT_FALSE(player->currentFrame()) << "sound alone has no picture";
    }

    EndObserver observer(player, item);
    player->play();
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::playing);
    ASSERT_TRUE(waitUntil([&] { return observer.ended(); }));

    auto seen = observer.seen();
    EXPECT_EQ(seen.object, item.get());
    EXPECT_NE(seen.thread, std::this_thread::get_id());
    EXPECT_EQ(seen.status, TimeControlStatus::paused) << "the rate returns to 0 at the end";
    if (c.probe) {
        ASSERT_TRUE(seen.frame);
        EXPECT_PRED2(near, colourAt(*seen.frame, *c.probe), c.last) << "the last frame was shown";
        // The observer rewound the paused player: the first frame comes back.
        EXPECT_TRUE(waitUntil([&] {
            auto frame = player->currentFrame();
            return frame && near(colourAt(*frame, *c.probe), c.first);
        }));
    }
    EXPECT_EQ(player->rate(), 0);
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::paused);
    EXPECT_EQ(observer.seen().count, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Media, PlaysToTheEnd,
    ::testing::Values(
        EndCase{"VideoWithSound", "counter.mp4", false, kCentre, kCounterFirst, kCounterLast},
        EndCase{"VideoWithSoundOverHttp", "counter.mp4", true, kCentre, kCounterFirst,
                kCounterLast},
        EndCase{"VideoWithoutSound", "green-screen.mp4", false, kSubjectStart, kSubject, kGreen},
        EndCase{"SoundOnly", "tone.m4a", false, std::nullopt, {}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

// --- rate and position -----------------------------------------------------------------------

TEST_F(PlayerTest, WithoutAnItemPlayWaitsAndTheItemPlaysOnceReady) {
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::paused);
    EXPECT_EQ(player->status(), Status::unknown);
    EXPECT_FALSE(player->currentItem());
    EXPECT_FALSE(player->currentFrame());

    player->play();
    EXPECT_EQ(player->rate(), 1);
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::waitingToPlayAtSpecifiedRate);

    auto item = PlayerItem::create(mediaFixtureUrl("counter.mp4"));
    EndObserver observer(player, item);
    player->replaceCurrentItem(item);
    EXPECT_EQ(player->currentItem(), item);
    EXPECT_TRUE(waitUntil([&] { return observer.ended(); })) << "a ready item plays at rate 1";
}

TEST_F(PlayerTest, PauseKeepsThePositionAndPlayGoesOnFromIt) {
    auto item = load(mediaFixtureUrl("counter.mp4"));
    EndObserver observer(player, item);
    player->play();
    ASSERT_TRUE(waitUntil([&] { return counterIndex(*player->currentFrame()) >= 5; }));
    player->pause();
    EXPECT_EQ(player->rate(), 0);
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::paused);
    const int pausedAt = counterIndex(*player->currentFrame());

    player->play();
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::playing);
    int earliest = pausedAt;
    ASSERT_TRUE(waitUntil([&] {
        if (!observer.ended())
            earliest = std::min(earliest, counterIndex(*player->currentFrame()));
        return observer.ended();
    }));
    EXPECT_GE(earliest, pausedAt) << "playing again went back before the paused frame";
    EXPECT_EQ(counterIndex(*observer.seen().frame), 24);
}

TEST_F(PlayerTest, ReplacingThePlayingItemPlaysTheNewOneAtTheSameRate) {
    auto first = load(mediaFixtureUrl("counter.mp4"));
    player->play();
    ASSERT_TRUE(waitUntil([&] { return counterIndex(*player->currentFrame()) >= 2; }));

    auto second = PlayerItem::create(mediaFixtureUrl("green-screen.mp4"));
    EndObserver observer(player, second);
    player->replaceCurrentItem(second);
    first.reset(); // the player held the only other reference: the old item stops now
    EXPECT_EQ(player->currentItem(), second);
    EXPECT_EQ(player->rate(), 1);
    ASSERT_TRUE(waitUntil([&] { return observer.ended(); }));
    ASSERT_TRUE(observer.seen().frame);
    EXPECT_PRED2(near, colourAt(*observer.seen().frame, kSubjectStart), kGreen)
        << "the last frame shown is the new item's";
}

// --- failures --------------------------------------------------------------------------------

struct FailureCase {
    const char* name;
    /// The URL, with {file} standing for a text file's path, {server} for the HTTP server and
    /// {untrusted} for the https server's video.
    const char* url;
    /// The error's description, with {url} standing for the URL.
    const char* description;

    friend void PrintTo(const FailureCase& c, std::ostream* out) { *out << c.name; }
};

class FailsReadably : public PlayerTest, public ::testing::WithParamInterface<FailureCase> {};

TEST_P(FailsReadably, LeavesThePlayerFailedAndWaiting) {
    const FailureCase& c = GetParam();
    TempDir dir;
    ASSERT_TRUE(writeFileAtomically(dir / "notes.mp4", "not a video, only words\n"));
    MediaServer server;
    // An https server whose certificate no trust store holds.
    HttpTestServer untrusted(fixturesDirectory() / "media" / "untrusted.pem");
    untrusted.start();
    std::string url = replaced(c.url, "{file}", (dir / "notes.mp4").string());
    url = replaced(replaced(url, "{server}", server.baseUrl()), "{untrusted}",
                   untrusted.baseUrl() + "/video.mp4");

    player->play();
    load(url);
    EXPECT_EQ(player->status(), Status::failed);
    ASSERT_TRUE(player->error());
    EXPECT_EQ(player->error()->description(), replaced(c.description, "{url}", url));
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::waitingToPlayAtSpecifiedRate);
    EXPECT_FALSE(player->currentFrame());
}

INSTANTIATE_TEST_SUITE_P(
    Media, FailsReadably,
    ::testing::Values(
        FailureCase{"MissingFile", "file:///nonexistent/pelkit/video.mp4",
                    "avformat_open_input({url}): No such file or directory (-2)"},
        FailureCase{"NotMedia", "file://{file}",
                    "avformat_open_input({url}): Invalid data found when processing input "
                    "(-1094995529)"},
        FailureCase{"HttpNotFound", "{server}/media/missing.mp4",
                    "avformat_open_input({url}): Server returned 404 Not Found (-875574520)"},
        FailureCase{"HttpsUntrustedCertificate", "{untrusted}",
                    "avformat_open_input({url}): Input/output error (-5) (tls: Peer certificate "
                    "failed verification)"},
        FailureCase{"UnsupportedScheme", "ftp://127.0.0.1/video.mp4",
                    "PlayerItem({url}): unsupported URL scheme"},
        FailureCase{"RelativeFileUrl", "file://server/video.mp4",
                    "PlayerItem({url}): not a local absolute file URL"}),
    [](const auto& info) { return std::string(info.param.name); });

// --- going away while the network hangs ------------------------------------------------------

enum class LetGo { destroyPlayer, replaceItemWithNothing };

class LetGoWhileOpening : public PlayerTest, public ::testing::WithParamInterface<LetGo> {};

TEST_P(LetGoWhileOpening, ReturnsAtOnceAndTheItemHangsUp) {
    SilentPort server;
    player->replaceCurrentItem(PlayerItem::create(server.url("/video.mp4")));
    player->play();
    ASSERT_TRUE(waitUntil([&] { return server.accepted(); }));
    EXPECT_EQ(player->status(), Status::unknown);
    EXPECT_EQ(player->timeControlStatus(), TimeControlStatus::waitingToPlayAtSpecifiedRate);

    if (GetParam() == LetGo::destroyPlayer)
        player.reset();
    else
        player->replaceCurrentItem(nullptr);
    EXPECT_TRUE(waitUntil([&] { return server.closedByPeer(); }))
        << "the item's thread is still blocked on the connection";
}

INSTANTIATE_TEST_SUITE_P(Media, LetGoWhileOpening,
                         ::testing::Values(LetGo::destroyPlayer, LetGo::replaceItemWithNothing),
                         [](const auto& info) {
                             return info.param == LetGo::destroyPlayer ? "DestroyPlayer"
                                                                       : "ReplaceItemWithNothing";
                         });

} // namespace
} // namespace pelkit::test
