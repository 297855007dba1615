// Times the player's decoding path on one core against the ffmpeg program decoding the same file
// in the same run, and counts what delivering pictures to a renderer costs in buffers.
//
//     media_bench FILE [rounds]     # bench/media/run makes a 1280x720 H.264 clip and calls this
//
// 1. Decode: the item thread's work without its pacing (open, demux, decode with one thread,
//    convert each picture once to RGBA into a pooled buffer and publish it), as fast as it goes,
//    against `ffmpeg -threads 1 -i FILE -f null -` (demux and decode, no conversion). Medians of
//    wall and CPU time over the rounds, alternating the two, and their ratio.
// 2. Delivery: a real Player plays FILE for two seconds while a renderer thread takes each new
//    picture and holds it until the next, as the renderer does. Counted: pictures seen, RGBA
//    buffers allocated (every allocation of a picture's size goes through operator new here),
//    and distinct buffers seen; copies beyond the one conversion would show as extra buffers.
#include "Decoder.h"
#include "FramePool.h"
#include "SharedSlot.h"

#include <pelkit/media/Player.h>

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

std::atomic<long> largeAllocations{0};
constexpr std::size_t kLargeAllocation = 1 << 20; // a 1280x720 RGBA picture is 3.7 MB

struct Times {
    double wall = 0;
    double cpu = 0;
};

double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + now.tv_nsec / 1e9;
}

double seconds(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

/// The player's decoding path, unpaced; returns the pictures converted.
int decodeLikeThePlayer(const std::string& url, Times& times) {
    std::atomic<bool> cancelled{false};
    const auto start = std::chrono::steady_clock::now();
    const double cpuStart = threadCpuSeconds();
    auto decoder = pelkit::media::Decoder::open(url, cancelled, pelkit::media::DecoderThreads::one);
    if (!decoder) {
        std::fprintf(stderr, "%s\n", (*decoder.error()).description().c_str());
        std::exit(1);
    }
    auto pool = pelkit::media::FramePool::create();
    pelkit::media::SharedSlot<const pelkit::image::Image> latest;
    int pictures = 0;
    for (;;) {
        auto decoded = (*decoder)->next();
        if (!decoded) {
            std::fprintf(stderr, "%s\n", decoded.error()->description().c_str());
            std::exit(1);
        }
        if (std::holds_alternative<pelkit::media::EndOfStream>(*decoded))
            break;
        if (auto* picture = std::get_if<pelkit::media::VideoFrame>(&*decoded)) {
            auto buffer = pool->take(picture->width, picture->height);
            (*decoder)->convert(*picture, *buffer);
            latest.store(pool->share(std::move(buffer)));
            ++pictures;
        }
    }
    times.cpu = threadCpuSeconds() - cpuStart;
    times.wall = seconds(std::chrono::steady_clock::now() - start);
    return pictures;
}

Times ffmpegDecode(const std::string& path) {
    std::vector<std::string> args{"ffmpeg", "-nostdin", "-v", "error", "-threads", "1",
                                  "-i",     path,       "-f", "null",  "-"};
    std::vector<char*> argv;
    for (auto& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (posix_spawnp(&child, "ffmpeg", nullptr, nullptr, argv.data(), environ) != 0) {
        std::fprintf(stderr, "cannot run ffmpeg\n");
        std::exit(1);
    }
    int status = 0;
    rusage usage{};
    wait4(child, &status, 0, &usage);
    Times times;
    times.wall = seconds(std::chrono::steady_clock::now() - start);
    times.cpu = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "ffmpeg failed\n");
        std::exit(1);
    }
    return times;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void delivery(const std::string& url) {
    ::setenv("SDL_AUDIODRIVER", "dummy", 0);
    auto player = std::make_shared<pelkit::media::Player>();
    const long before = largeAllocations;
    player->replaceCurrentItem(pelkit::media::PlayerItem::create(url));
    player->play();
    int seen = 0;
    std::set<const void*> buffers;
    std::shared_ptr<const pelkit::image::Image> held;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    std::thread renderer([&] {
        while (std::chrono::steady_clock::now() < end) {
            auto frame = player->currentFrame();
            if (frame && frame != held) {
                ++seen;
                buffers.insert(frame->rgba.data());
                held = std::move(frame); // kept until the next picture, as an uploaded texture
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(4));
        }
        held.reset();
    });
    renderer.join();
    player.reset();
    // A copy of a picture anywhere on the way would need a buffer of its own per picture.
    std::printf("delivery: %d pictures reached the renderer in 2 s of playback; %ld RGBA buffers "
                "allocated, %zu distinct buffers seen\n",
                seen, largeAllocations - before, buffers.size());
}

} // namespace

// GCC inlines the replaced operator delete below into delete-expressions and then takes its
// free() for a mismatch with new; the two are replaced as a pair here, so they match.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void* operator new(std::size_t size) {
    if (size >= kLargeAllocation)
        ++largeAllocations;
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: media_bench FILE [rounds]\n");
        return 2;
    }
    const std::string path = std::filesystem::absolute(argv[1]).string();
    const std::string url = "file://" + path;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;

    std::vector<double> oursWall, oursCpu, baseWall, baseCpu;
    int pictures = 0;
    const long before = largeAllocations;
    for (int i = 0; i < rounds; ++i) {
        Times base = ffmpegDecode(path);
        baseWall.push_back(base.wall);
        baseCpu.push_back(base.cpu);
        Times ours;
        pictures = decodeLikeThePlayer(url, ours);
        oursWall.push_back(ours.wall);
        oursCpu.push_back(ours.cpu);
    }
    const long allocated = (largeAllocations - before) / rounds;
    std::printf("decode: %d pictures, median of %d rounds, one core each\n", pictures, rounds);
    std::printf("  ffmpeg -threads 1 -f null   wall %.3f s  cpu %.3f s\n", median(baseWall),
                median(baseCpu));
    std::printf("  player decode path          wall %.3f s  cpu %.3f s  (%ld RGBA buffers "
                "allocated for %d pictures)\n",
                median(oursWall), median(oursCpu), allocated, pictures);
    std::printf("  ratio player/ffmpeg         wall %.2fx  cpu %.2fx\n",
                median(oursWall) / median(baseWall), median(oursCpu) / median(baseCpu));
    delivery(url);
    return 0;
}
