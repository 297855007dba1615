#include "MediaTestSupport.h"

#include <pelkit/media/AudioSession.h>

#include <gtest/gtest.h>

namespace pelkit::test {
namespace {

using media::AudioSession;

Result<> configure(AudioSession& session) {
    return session.setCategory(AudioSession::Category::playback, AudioSession::Mode::defaultMode,
                               AudioSession::Options::none);
}

TEST(AudioSession, ActivatesForPlaybackOnTheDummyDriverEvenWhileAPlayerHoldsItsOnlyOutput) {
    ScopedEnv driver("SDL_AUDIODRIVER", "dummy");
    auto& session = AudioSession::shared();
    auto configured = configure(session);
    ASSERT_TRUE(configured) << *configured.error();
    auto activated = session.setActive(true);
    ASSERT_TRUE(activated) << *activated.error();
    EXPECT_TRUE(session.isActive());
    EXPECT_TRUE(session.setActive(false));
    EXPECT_FALSE(session.isActive());

    auto player = std::make_shared<media::Player>();
    player->replaceCurrentItem(media::PlayerItem::create(mediaFixtureUrl("counter.mp4")));
    ASSERT_TRUE(waitUntil([&] { return player->status() == media::Status::readyToPlay; }));
    activated = session.setActive(true);
    EXPECT_TRUE(activated) << *activated.error();
}

struct SessionStep {
    const char* name;
    Result<> (*run)(AudioSession&);

    friend void PrintTo(const SessionStep& step, std::ostream* out) { *out << step.name; }
};

class AudioSessionWithoutDriver : public ::testing::TestWithParam<SessionStep> {};

TEST_P(AudioSessionWithoutDriver, FailsWithAReadableError) {
    ScopedEnv driver("SDL_AUDIODRIVER", "pelkit-no-such-driver");
    auto& session = AudioSession::shared();
    ASSERT_TRUE(session.setActive(false));
    // SDL picks its driver when its audio subsystem starts; players of earlier tests may still
    // hold it up for a moment while their threads wind down.
    Result<> outcome;
    ASSERT_TRUE(waitUntil([&] { return !(outcome = GetParam().run(session)); }));
    EXPECT_EQ(outcome.error()->description(),
              "SDL_InitSubSystem(audio): Audio target 'pelkit-no-such-driver' not available");
    EXPECT_FALSE(session.isActive());
}

INSTANTIATE_TEST_SUITE_P(
    Media, AudioSessionWithoutDriver,
    ::testing::Values(SessionStep{"SetCategory", configure},
                      SessionStep{"SetActive", [](AudioSession& s) { return s.setActive(true); }}),
    [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace pelkit::test
