#include "Progress.h"

#include <cmath>
#include <cstdio>

Progress::Progress(bool live) : live_(live) {}

Progress::~Progress() {
    finish();
}

void Progress::start() {
    if (!live_ || ticker_.joinable())
        return;
    started_ = std::chrono::steady_clock::now();
    ticker_ = std::thread([this] {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            drawLocked();
            wake_.wait_for(lock, std::chrono::milliseconds(100));
        }
    });
}

void Progress::finish() {
    {
        std::lock_guard lock(mutex_);
        if (stopping_)
            return;
        stopping_ = true;
        clearLocked();
    }
    wake_.notify_all();
    if (ticker_.joinable())
        ticker_.join();
}

void Progress::setPhase(std::string phase) {
    std::lock_guard lock(mutex_);
    phase_ = std::move(phase);
    fraction_.reset();
}

void Progress::setFraction(float fraction) {
    std::lock_guard lock(mutex_);
    fraction_ = fraction;
    // Progress arrives per received chunk; redraw at most every 50 ms.
    if (std::chrono::steady_clock::now() - lastDraw_ > std::chrono::milliseconds(50))
        drawLocked();
}

void Progress::printAbove(std::string_view line) {
    std::lock_guard lock(mutex_);
    clearLocked();
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    if (!stopping_)
        drawLocked();
}

void Progress::clearLocked() {
    if (live_ && drawn_) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        drawn_ = false;
    }
}

void Progress::drawLocked() {
    if (!live_ || stopping_)
        return;
    using namespace std::chrono;
    lastDraw_ = steady_clock::now();
    double elapsed = duration<double>(lastDraw_ - started_).count();
    static const char spinner[] = {'|', '/', '-', '\\'};
    char text[160];
    if (fraction_ && *fraction_ >= 0) {
        constexpr int width = 30;
        float clamped = std::fmin(*fraction_, 1.0f);
        int filled = static_cast<int>(clamped * width);
        std::string bar(static_cast<std::size_t>(filled), '#');
        bar.resize(width, '.');
        std::snprintf(text, sizeof text, "%s [%s] %5.1f%%  %.1fs", phase_.c_str(), bar.c_str(),
                      static_cast<double>(*fraction_) * 100.0, elapsed);
    } else if (fraction_) {
        std::snprintf(text, sizeof text, "%c %s  %.2f MB  %.1fs", spinner[frame_++ % 4],
                      phase_.c_str(), -static_cast<double>(*fraction_) / 1e6, elapsed);
    } else {
        std::snprintf(text, sizeof text, "%c %s  %.1fs", spinner[frame_++ % 4], phase_.c_str(),
                      elapsed);
    }
    std::fprintf(stderr, "\r\033[K%s", text);
    std::fflush(stderr);
    drawn_ = true;
}
