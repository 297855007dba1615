// The live status line of `pelkit sync` on a terminal. Thread-safe: statuses arrive on the HTTP
// threads while a ticker thread redraws.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

class Progress {
public:
    /// Draws on stderr only when `live` (a terminal); otherwise only passes lines through.
    explicit Progress(bool live);
    ~Progress();

    void start();
    /// Stops redrawing and clears the live line.
    void finish();

    void setPhase(std::string phase);
    /// A fraction of 1, or, when negative, minus the number of bytes received so far.
    void setFraction(float fraction);
    /// Prints `line` on stdout without tearing the live line.
    void printAbove(std::string_view line);

private:
    void drawLocked();
    void clearLocked();

    const bool live_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::thread ticker_;
    bool stopping_ = false;
    bool drawn_ = false;
    unsigned frame_ = 0;
    std::string phase_ = "starting";
    std::optional<float> fraction_;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point lastDraw_{};
};
