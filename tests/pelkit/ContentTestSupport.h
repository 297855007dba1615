// Shared set-up of the content node tests: a real server for pictures and media, and readers of
// what a node's button and video show.
#pragma once

#include <pelkit/PELAudioNode.h>
#include <pelkit/foundation/FileSystem.h>
#include <pelkit/image/Image.h>
#include <pelkit/scene/Geometry.h>
#include <pelkit/scene/Node.h>

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

namespace pelkit::test {

/// Serves "/files/red.png" (a 4x4 red picture) and "/files/junk.png" (not a picture) from a
/// temporary directory, the media fixtures under "/media/", the same under "/held/" once
/// `release()` has been called, and a prepare endpoint that answers 404 for every content, which
/// the nodes ask through PELKIT_HOST.
class ContentServer {
public:
    ContentServer() {
        useDummyAudioDriver();
        auto red = image::encodePng(image::Image::filled(4, 4, 0xff0000ffu));
        EXPECT_TRUE(writeFileAtomically(files / "red.png", *red));
        EXPECT_TRUE(writeFileAtomically(files / "junk.png", bytesOf("not a picture")));
        server.server.set_mount_point("/files", files.path().string());
        server.server.set_mount_point("/media", (fixturesDirectory() / "media").string());
        server.server.Get(R"(/held/(.+))", [this](const httplib::Request& request,
                                                  httplib::Response& response) {
            held_.wait();
            auto bytes =
                readRegularFile(fixturesDirectory() / "media" / request.matches[1].str(), 1 << 20);
            response.set_content(std::string(textOf(*bytes)), "application/octet-stream");
        });
        server.start();
        host_.emplace("PELKIT_HOST", server.baseUrl());
    }
    ~ContentServer() { release(); }
    void release() { held_.open(); }

    std::optional<net::Url> url(const std::string& path) const {
        return net::Url::parse(server.baseUrl() + path);
    }

private:
    Gate held_;
    TempDir files;

public:
    HttpTestServer server;

private:
    std::optional<ScopedEnv> host_;
};

/// A player's state for failure messages.
inline std::string describe(const media::Player& player) {
    auto error = player.error();
    return "status " + std::to_string(static_cast<int>(player.status())) + ", time control " +
           std::to_string(static_cast<int>(player.timeControlStatus())) +
           (error ? ", error: " + error->description() : "");
}

/// What a play button shows.
enum class Shown { play, clear, other };

inline Shown buttonContents(const scene::Plane& button) {
    auto contents = button.firstMaterial()->diffuseContents();
    if (auto* picture = std::get_if<std::shared_ptr<const image::Image>>(&contents))
        return *picture == PELAudioNode::initTextureNamed("play") ? Shown::play : Shown::other;
    if (auto* colour = std::get_if<scene::Color>(&contents))
        return *colour == scene::Color{0, 0, 0, 0} ? Shown::clear : Shown::other;
    return Shown::other;
}

/// Drives the scene clock through a video's fade-in: at once transparent and shown, half way at
/// half opacity, opaque after one second.
template <class Video> void expectFadeIn(scene::Node& root, Video& video, double& clock) {
    auto opacity = [&] {
        if constexpr (requires { video.alpha(); })
            return video.alpha();
        else
            return video.opacity();
    };
    root.updateActions(clock);
    EXPECT_FALSE(video.isHidden());
    EXPECT_FLOAT_EQ(opacity(), 0);
    root.updateActions(clock + 0.5);
    EXPECT_NEAR(opacity(), 0.5, 1e-4);
    root.updateActions(clock += 1.0);
    EXPECT_FLOAT_EQ(opacity(), 1);
    EXPECT_FALSE(video.hasActions());
}

} // namespace pelkit::test
