// Times the chroma keyer on 1280x720 RGBA frames on one core, next to two baselines measured in
// the same run: a memcpy of the same frames (what moving the bytes costs at all) and FFmpeg's
// chromakey filter on the same frames, single-threaded.
//
//     chroma_bench            # prints a table; needs `ffmpeg` on PATH for the FFmpeg rows
//
// Two memory situations are timed: one frame keyed over and over (it stays in the last-level
// cache, the hardest case for the keyer relative to memcpy), and a stream of frames larger than
// any cache (each frame comes from main memory, as decoded video does).
#include "ChromaKeyer.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

extern char** environ;

namespace {

using namespace pelkit;
using namespace pelkit::bench;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int frameWidth = 1280;
constexpr int frameHeight = 720;
constexpr std::size_t frameBytes = std::size_t{frameWidth} * frameHeight * 4;
constexpr int streamFrames = 24; // 88 MB: beyond any last-level cache we run on
constexpr int ffmpegLoops = 2;   // the FFmpeg runs read the stream this many times

using Frame = std::vector<std::uint8_t>;

// A presenter in front of a green screen: a noisy, unevenly lit green background, a figure of
// skin, hair and clothing colours with a two-pixel soft edge into the green, and green spill on
// the figure's rim. The figure moves from frame to frame.
Frame greenScreenFrame(int index) {
    Frame frame(frameBytes);
    std::mt19937 random(static_cast<unsigned>(index) + 1);
    std::uniform_int_distribution<int> noise(-6, 6);
    const double cx = 640 + 120 * std::sin(index * 0.3);
    const double cy = 420;
    for (int y = 0; y < frameHeight; ++y) {
        for (int x = 0; x < frameWidth; ++x) {
            const double light = 0.85 + 0.15 * std::cos((x - 640) / 900.0) * std::cos(y / 700.0);
            double green[3] = {20 * light, 175 * light, 70 * light};
            const double ex = (x - cx) / 230.0;
            const double ey = (y - cy) / 330.0;
            const double r = std::sqrt(ex * ex + ey * ey);
            const double inside = std::clamp((1.0 - r) * 115.0, 0.0, 1.0); // ~2 px soft edge
            double subject[3];
            if (y < cy - 200) {
                subject[0] = 60, subject[1] = 40, subject[2] = 25; // hair
            } else if (y < cy - 40) {
                subject[0] = 225, subject[1] = 175, subject[2] = 145; // face
            } else {
                subject[0] = 45, subject[1] = 60, subject[2] = 150; // shirt
            }
            if (r > 0.93) {
                subject[1] += 40; // spill from the screen
            }
            std::uint8_t* p = &frame[(std::size_t{static_cast<unsigned>(y)} * frameWidth +
                                      static_cast<unsigned>(x)) *
                                     4];
            for (int c = 0; c < 3; ++c) {
                const double v = inside * subject[c] + (1 - inside) * green[c] + noise(random);
                p[c] = static_cast<std::uint8_t>(std::clamp(v, 0.0, 255.0));
            }
            p[3] = 255;
        }
    }
    return frame;
}

// The fastest of `repeats` runs of `work`, divided by the frames each run handles: the minimum
// is the run least disturbed by other processes on the machine.
double bestMsPerFrame(int repeats, int framesPerRun, const std::function<void()>& work) {
    double best = 1e300;
    for (int i = 0; i < repeats; ++i) {
        const auto start = Clock::now();
        work();
        const std::chrono::duration<double, std::milli> elapsed = Clock::now() - start;
        best = std::min(best, elapsed.count() / framesPerRun);
    }
    return best;
}

// Keeps the compiler from dropping a copy nobody reads.
void consume(const void* p) {
    asm volatile("" : : "r"(p) : "memory");
}

struct Timings {
    double memcpyMs;
    std::vector<std::pair<ChromaKeyKernel, double>> keyerMs; // best kernel first
};

std::vector<ChromaKeyKernel> kernels() {
    std::vector<ChromaKeyKernel> list{bestChromaKeyKernel()};
    for (auto k : {ChromaKeyKernel::avx512, ChromaKeyKernel::avx2, ChromaKeyKernel::portable}) {
        if (k != list.front() && supportsChromaKeyKernel(k))
            list.push_back(k);
    }
    return list;
}

Timings measure(std::vector<Frame>& frames, int framesPerRun) {
    std::vector<Frame> copies(frames.size(), Frame(frameBytes));
    Timings timings{};
    std::size_t next = 0;
    timings.memcpyMs = bestMsPerFrame(15, framesPerRun, [&] {
        for (int i = 0; i < framesPerRun; ++i, next = (next + 1) % frames.size()) {
            std::memcpy(copies[next].data(), frames[next].data(), frameBytes);
            consume(copies[next].data());
        }
    });
    for (const ChromaKeyKernel kernel : kernels()) {
        const double ms = bestMsPerFrame(15, framesPerRun, [&] {
            for (int i = 0; i < framesPerRun; ++i, next = (next + 1) % frames.size()) {
                chromaKeyFrame(frames[next], greenScreenThresholdSensitivity, greenScreenSmoothing,
                               kernel);
            }
        });
        timings.keyerMs.emplace_back(kernel, ms);
    }
    return timings;
}

// Wall-clock seconds of one ffmpeg run, or nothing when ffmpeg is missing or fails.
std::optional<double> runFfmpeg(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& a : arguments)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = Clock::now();
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0)
        return std::nullopt;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return std::nullopt;
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::optional<double> bestFfmpegSeconds(const fs::path& raw, const std::string& filters) {
    const std::vector<std::string> arguments = {"ffmpeg",
                                                "-hide_banner",
                                                "-loglevel",
                                                "error",
                                                "-nostdin",
                                                "-threads",
                                                "1",
                                                "-filter_threads",
                                                "1",
                                                "-stream_loop",
                                                std::to_string(ffmpegLoops - 1),
                                                "-f",
                                                "rawvideo",
                                                "-pix_fmt",
                                                "rgba",
                                                "-s",
                                                std::to_string(frameWidth) + "x" +
                                                    std::to_string(frameHeight),
                                                "-i",
                                                raw.string(),
                                                "-threads",
                                                "1",
                                                "-vf",
                                                filters,
                                                "-f",
                                                "null",
                                                "-"};
    std::optional<double> best;
    for (int i = 0; i < 3; ++i) {
        const auto seconds = runFfmpeg(arguments);
        if (!seconds)
            return std::nullopt;
        best = std::min(best.value_or(1e300), *seconds);
    }
    return best;
}

struct FfmpegTimings {
    double filterMs; // the chromakey filter alone, on the YUVA frames it works in
    double jobMs;    // RGBA frames in, keyed frames out: conversion plus filter
};

// FFmpeg keys in YUV, so the RGBA frames are converted first. Three runs over the same frames
// tell the parts apart: pass-through, conversion only, conversion and keying. Each run's process
// start and frame reading cancel in the differences.
std::optional<FfmpegTimings> measureFfmpeg(const std::vector<Frame>& frames) {
    const fs::path dir =
        fs::temp_directory_path() / ("pelkit-chroma-bench-" + std::to_string(getpid()));
    fs::create_directories(dir);
    struct Cleanup {
        fs::path dir;
        ~Cleanup() { fs::remove_all(dir); }
    } cleanup{dir};
    const fs::path raw = dir / "frames.rgba";
    {
        std::ofstream out(raw, std::ios::binary);
        for (const Frame& f : frames)
            out.write(reinterpret_cast<const char*>(f.data()), f.size());
        if (!out)
            return std::nullopt;
    }
    const auto passThrough = bestFfmpegSeconds(raw, "null");
    const auto convert = bestFfmpegSeconds(raw, "format=yuva444p");
    const auto key = bestFfmpegSeconds(raw, "format=yuva444p,chromakey=0x00FF00:0.5:0.001");
    if (!passThrough || !convert || !key)
        return std::nullopt;
    const double frameCount = static_cast<double>(frames.size()) * ffmpegLoops;
    return FfmpegTimings{(*key - *convert) * 1000 / frameCount,
                         (*key - *passThrough) * 1000 / frameCount};
}

} // namespace

int main() {
    std::printf("Chroma keying of %dx%d RGBA frames on one core (threshold %.3g, smoothing %.3g)\n",
                frameWidth, frameHeight, double{greenScreenThresholdSensitivity},
                double{greenScreenSmoothing});
    std::vector<Frame> stream;
    for (int i = 0; i < streamFrames; ++i)
        stream.push_back(greenScreenFrame(i));
    std::vector<Frame> single{stream.front()};

    const Timings hot = measure(single, 20);
    const Timings cold = measure(stream, streamFrames);
    const auto ffmpeg = measureFfmpeg(stream);

    std::printf("\n%-34s %14s %14s\n", "ms per frame", "cached frame", "frame stream");
    std::printf("%-34s %14.3f %14.3f\n", "memcpy (baseline)", hot.memcpyMs, cold.memcpyMs);
    for (std::size_t i = 0; i < hot.keyerMs.size(); ++i) {
        const std::string label = std::string("keyer, ") +
                                  chromaKeyKernelName(hot.keyerMs[i].first) +
                                  (i == 0 ? " (used)" : "");
        std::printf("%-34s %14.3f %14.3f\n", label.c_str(), hot.keyerMs[i].second,
                    cold.keyerMs[i].second);
    }
    if (ffmpeg) {
        std::printf("%-34s %14s %14.3f\n", "ffmpeg chromakey filter", "", ffmpeg->filterMs);
        std::printf("%-34s %14s %14.3f\n", "ffmpeg RGBA->YUVA + chromakey", "", ffmpeg->jobMs);
    } else {
        std::printf("%-34s %14s %14s\n", "ffmpeg", "", "(not run)");
    }

    const double keyerHot = hot.keyerMs.front().second;
    const double keyerCold = cold.keyerMs.front().second;
    std::printf("\nratios (used keyer)\n");
    std::printf("  keyer / memcpy                   %6.2f (cached) %6.2f (stream)  target <= 2\n",
                keyerHot / hot.memcpyMs, keyerCold / cold.memcpyMs);
    if (ffmpeg) {
        std::printf("  keyer / ffmpeg chromakey filter  %6.3f (stream)\n",
                    keyerCold / ffmpeg->filterMs);
        std::printf("  keyer / ffmpeg RGBA job          %6.3f (stream)\n",
                    keyerCold / ffmpeg->jobMs);
    }
    return 0;
}
