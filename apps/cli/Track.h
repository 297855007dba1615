// `pelkit track`: a session on a folder of images, from a camera, a video or a script.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>

namespace pelkit::apps {

/// A subcommand as the command line's main function runs it.
struct TrackCommand {
    const CLI::App* app;
    std::function<int()> run;
};

/// Adds `track` to `pelkit`.
TrackCommand addTrack(CLI::App& pelkit);

} // namespace pelkit::apps
