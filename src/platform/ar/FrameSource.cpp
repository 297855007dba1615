// The camera and video-file sources, on OpenCV's videoio (V4L2 for cameras, FFmpeg for files).
#include "OpenCv.h"

#include <pelkit/ar/FrameSource.h>

#include <opencv2/videoio.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace pelkit::ar {

CameraIntrinsics CameraIntrinsics::fromFieldOfView(double horizontalFieldOfView,
                                                   glm::ivec2 resolution) {
    double focal = resolution.x / 2.0 / std::tan(horizontalFieldOfView / 2);
    CameraIntrinsics out;
    out.matrix = glm::dmat3(1.0);
    out.matrix[0][0] = focal;
    out.matrix[1][1] = focal;
    // Pixel centres sit at integer coordinates, so the middle of the picture is at (w-1)/2.
    out.matrix[2][0] = (resolution.x - 1) / 2.0;
    out.matrix[2][1] = (resolution.y - 1) / 2.0;
    out.imageResolution = resolution;
    return out;
}

FrameSource::~FrameSource() = default;

namespace {

ErrorPtr sourceError(const std::string& what, int code, const std::string& why) {
    return Error::make("ar.camera", code, what + ": " + why);
}

// A camera is read on a thread of its own, so that a device which stops delivering shows up as a
// timeout instead of a read blocked for as long as the driver likes.
class CameraSource final : public FrameSource {
public:
    CameraSource(std::string device, double fieldOfView)
        : device_(std::move(device)), fieldOfView_(fieldOfView) {}
    ~CameraSource() override { stop(); }

    Result<void> start() override {
        stop();
        struct stat info {};
        if (::stat(device_.c_str(), &info) != 0)
            return std::unexpected(sourceError(
                description(), errno, "cannot be opened: " + std::string(std::strerror(errno))));
        auto capture = std::make_unique<cv::VideoCapture>();
        if (!capture->open(device_, cv::CAP_V4L2) || !capture->isOpened())
            return std::unexpected(
                sourceError(description(), 0,
                            "cannot be opened: the device is not a V4L2 video capture device"));
        capture_ = std::move(capture);
        running_ = true;
        reader_ = std::thread([this] { read(); });
        return {};
    }

    Result<FrameOutcome> nextFrame(CameraFrame& frame, std::chrono::milliseconds timeout) override {
        std::unique_lock lock(mutex_);
        if (!capture_)
            return std::unexpected(sourceError(description(), 0, "not started"));
        if (!arrived_.wait_for(lock, timeout, [&] { return latest_.has_value() || failed_; }))
            return FrameOutcome::timedOut;
        if (!latest_)
            return std::unexpected(sourceError(description(), 0, "the device stopped reading"));
        frame = std::move(*latest_);
        latest_.reset();
        return FrameOutcome::frame;
    }

    void stop() override {
        {
            std::lock_guard lock(mutex_);
            running_ = false;
        }
        if (reader_.joinable())
            reader_.join();
        capture_.reset();
        latest_.reset();
        failed_ = false;
    }

    std::string description() const override { return "camera " + device_; }

private:
    void read() {
        cv::Mat picture;
        auto started = std::chrono::steady_clock::now();
        for (;;) {
            {
                std::lock_guard lock(mutex_);
                if (!running_)
                    return;
            }
            if (!capture_->read(picture) || picture.empty()) {
                // A device that fails a read may come back (a cable wiggled); the session sees
                // timeouts meanwhile.
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                continue;
            }
            CameraFrame frame;
            frame.image = std::make_shared<image::Image>(cvx::toImage(picture));
            frame.timestamp =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            frame.intrinsics =
                CameraIntrinsics::fromFieldOfView(fieldOfView_, {picture.cols, picture.rows});
            std::lock_guard lock(mutex_);
            latest_ = std::move(frame);
            arrived_.notify_all();
        }
    }

    std::string device_;
    double fieldOfView_;
    std::unique_ptr<cv::VideoCapture> capture_;
    std::thread reader_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::optional<CameraFrame> latest_;
    bool running_ = false;
    bool failed_ = false;
};

class VideoFileSource final : public FrameSource {
public:
    VideoFileSource(std::filesystem::path file, double fieldOfView)
        : file_(std::move(file)), fieldOfView_(fieldOfView) {}

    Result<void> start() override {
        std::error_code error;
        if (!std::filesystem::is_regular_file(file_, error))
            return std::unexpected(sourceError(description(), 2, "cannot be opened: no such file"));
        capture_ = std::make_unique<cv::VideoCapture>();
        if (!capture_->open(file_.string(), cv::CAP_FFMPEG) || !capture_->isOpened()) {
            capture_.reset();
            return std::unexpected(
                sourceError(description(), 0, "cannot be opened: not a video FFmpeg can decode"));
        }
        last_ = -1;
        return {};
    }

    Result<FrameOutcome> nextFrame(CameraFrame& frame, std::chrono::milliseconds) override {
        if (!capture_)
            return std::unexpected(sourceError(description(), 0, "not started"));
        cv::Mat picture;
        if (!capture_->read(picture) || picture.empty())
            return FrameOutcome::ended;
        frame.image = std::make_shared<image::Image>(cvx::toImage(picture));
        // Timestamps must grow even where the container repeats or lacks them.
        double time = capture_->get(cv::CAP_PROP_POS_MSEC) / 1000;
        frame.timestamp = time > last_ ? time : last_ + 1e-3;
        last_ = frame.timestamp;
        frame.intrinsics =
            CameraIntrinsics::fromFieldOfView(fieldOfView_, {picture.cols, picture.rows});
        return FrameOutcome::frame;
    }

    void stop() override { capture_.reset(); }

    std::string description() const override { return "video " + file_.string(); }

private:
    std::filesystem::path file_;
    double fieldOfView_;
    std::unique_ptr<cv::VideoCapture> capture_;
    double last_ = -1;
};

} // namespace

std::unique_ptr<FrameSource> makeCameraSource(std::string device, double horizontalFieldOfView) {
    return std::make_unique<CameraSource>(std::move(device), horizontalFieldOfView);
}

std::unique_ptr<FrameSource> makeVideoFileSource(std::filesystem::path file,
                                                 double horizontalFieldOfView) {
    return std::make_unique<VideoFileSource>(std::move(file), horizontalFieldOfView);
}

} // namespace pelkit::ar
