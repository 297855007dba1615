#include <pelkit/ar/FrameFeed.h>

#include <cstdlib>
#include <mutex>
#include <string>

namespace pelkit::ar {
namespace {

// Stands for a camera that a misspelt setting names: it fails where a camera would, so the user
// hears of it through the session's failure, with the text they wrote.
class UnnamedSource final : public FrameSource {
public:
    explicit UnnamedSource(std::string text) : text_(std::move(text)) {}

    Result<void> start() override {
        return std::unexpected(Error::make(
            "ar.camera", 22,
            "\"" + text_ + "\" names no camera: use /dev/videoN, video:FILE or script:FILE"));
    }
    Result<FrameOutcome> nextFrame(CameraFrame&, std::chrono::milliseconds) override {
        return FrameOutcome::ended;
    }
    void stop() override {}
    std::string description() const override { return "camera \"" + text_ + "\""; }

private:
    std::string text_;
};

FrameFeed cameraFeed(std::string device) {
    return {[device] { return makeCameraSource(device); }, SourceKind::camera, nullptr};
}

std::mutex defaultMutex;
FrameFeed& hostDefault() {
    static FrameFeed feed;
    return feed;
}

} // namespace

FrameFeed FrameFeed::fromDescription(std::string_view description) {
    std::string text(description);
    if (text.starts_with("/dev/video"))
        return cameraFeed(text);
    if (text.starts_with("video:")) {
        std::filesystem::path file = text.substr(6);
        return {[file] { return makeVideoFileSource(file); }, SourceKind::recording, nullptr};
    }
    if (text.starts_with("script:")) {
        std::filesystem::path file = text.substr(7);
        return {[file] { return makeScriptedSource(file); }, SourceKind::recording, nullptr};
    }
    return {[text] { return std::make_unique<UnnamedSource>(text); }, SourceKind::camera, nullptr};
}

void setDefaultFrameFeed(FrameFeed feed) {
    std::lock_guard lock(defaultMutex);
    hostDefault() = std::move(feed);
}

FrameFeed defaultFrameFeed() {
    FrameFeed feed;
    {
        std::lock_guard lock(defaultMutex);
        feed = hostDefault();
    }
    if (!feed.makeSource)
        feed = cameraFeed("/dev/video0");
    const char* named = std::getenv("PELKIT_CAMERA");
    if (named && *named) {
        auto clock = feed.clock;
        feed = FrameFeed::fromDescription(named);
        feed.clock = clock;
    }
    if (!feed.clock)
        feed.clock = Clock::steady();
    return feed;
}

} // namespace pelkit::ar
