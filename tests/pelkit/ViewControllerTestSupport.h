// Shared set-up of the AR screen's tests: the demo project served by an in-process dev server, a
// scripted camera on a clock the test steps, a headless window showing the screen, and the
// diagnostic lines it prints.
#pragma once

#include <pelkit/PELViewController.h>
#include <pelkit/ar/Clock.h>
#include <pelkit/ui/Window.h>

#include "TestSupport.h"
#include "devserver/DevServer.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pelkit {

/// Reaches the screen's private steps that the tests drive one by one.
class PELViewControllerTestAccess {
public:
    static void handleNodeClick(PELViewController& c, const std::shared_ptr<scene::Node>& node) {
        c.handleNodeClick(node);
    }
    static void stopCurrentPlayers(PELViewController& c) { c.stopCurrentPlayers(); }
};

} // namespace pelkit

namespace pelkit::test {

inline constexpr const char* appKey = "viewer-test-app-key-0123456789";
/// Every test script runs at 5 frames a second.
inline constexpr double kFrameInterval = 0.2;

class ViewControllerTest : public ::testing::Test {
protected:
    ViewControllerTest();
    static void SetUpTestSuite();
    void SetUp() override;
    void TearDown() override;

    /// The served project's configuration, to change before `present` or before a refresh.
    nlohmann::json configuration() const;
    void serve(const nlohmann::json& configuration);
    /// Writes the camera script: "MANDEL", "CELL" and "LIFE" stand for the demo targets.
    void writeScript(std::string json);

    /// Presents a new screen for `key` in the window.
    std::shared_ptr<PELViewController> present(const std::string& key = appKey);
    /// Waits until the screen tracks a project.
    void waitForTracking();
    /// Moves the camera on by `seconds` and waits until its frame is drawn and the content of new
    /// anchors is attached. Returns whether a frame came.
    bool step(double seconds);
    /// Steps until `done` holds, at most `limit` seconds of script time.
    bool stepUntil(const std::function<bool()>& done, double limit = 10);
    /// Taps the window where `node`'s centre is seen.
    void tapOn(const std::shared_ptr<scene::Node>& node);
    /// Pumps the main loop until `done` holds (a guard against a hang, not a measure).
    bool pumpUntil(const std::function<bool()>& done,
                   std::chrono::milliseconds limit = std::chrono::seconds(30));
    int count(const std::string& line) const;
    /// The configuration requests the server has seen.
    long synchronisations() const;
    /// Stops the screen's session and lets its pending content work finish.
    static void quiesce(PELViewController& screen);

    /// The first content node of kind `T` under the scene.
    template <class T> std::shared_ptr<T> find() const {
        std::vector<std::shared_ptr<scene::Node>> open{controller->sceneView()->scene()};
        while (!open.empty()) {
            auto node = open.front();
            open.erase(open.begin());
            if (auto match = std::dynamic_pointer_cast<T>(node))
                return match;
            for (auto& child : node->childNodes())
                open.push_back(child);
        }
        return nullptr;
    }

    // One folder, one server and one environment for the whole process, set before the first
    // screen: screens live until the process ends and their threads read the environment, so
    // nothing may change it after that.
    const std::filesystem::path& dir;
    devserver::DevServer* const server;
    std::optional<LineCapture> lines;
    std::shared_ptr<ar::SteppedClock> clock = std::make_shared<ar::SteppedClock>();
    std::shared_ptr<ui::Window> window;
    std::shared_ptr<PELViewController> controller;
};

} // namespace pelkit::test
