#include "SyntheticFrame.h"

#include "OpenCv.h"

#include <glm/gtc/matrix_transform.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace pelkit::ar::synthetic {
namespace {

// The outer corners of a w x h picture, with pixel centres at integer coordinates.
Quad edges(cv::Size size) {
    double w = size.width - 0.5, h = size.height - 0.5;
    return {{{-0.5, -0.5}, {w, -0.5}, {w, h}, {-0.5, h}}};
}

double area(const Quad& q) {
    double sum = 0;
    for (int i = 0; i < 4; ++i)
        sum += q[i].x * q[(i + 1) % 4].y - q[(i + 1) % 4].x * q[i].y;
    return std::abs(sum) / 2;
}

void draw(cv::Mat& frame, const Placement& placement) {
    // Shrink the picture first when the frame shows it much smaller, as a lens would average
    // it; bilinear warping alone would alias.
    cv::Mat picture = placement.picture;
    double shrink = std::sqrt(area(placement.corners) / picture.total());
    if (shrink < 0.7) {
        cv::Size size(std::max(2, int(std::lround(picture.cols * shrink * 1.4))),
                      std::max(2, int(std::lround(picture.rows * shrink * 1.4))));
        cv::resize(picture, picture, size, 0, 0, cv::INTER_AREA);
    }
    auto from = edges(picture.size());
    std::vector<cv::Point2f> src(from.begin(), from.end()), dst;
    for (auto p : placement.corners)
        dst.emplace_back(p);
    cv::Rect box = cv::boundingRect(dst) & cv::Rect(0, 0, frame.cols, frame.rows);
    box = box + cv::Point(-2, -2) + cv::Size(4, 4);
    box &= cv::Rect(0, 0, frame.cols, frame.rows);
    if (box.empty())
        return;
    for (auto& p : dst)
        p -= cv::Point2f(box.tl());
    cv::Mat homography = cv::getPerspectiveTransform(src, dst);
    cv::Mat warped, mask;
    cv::warpPerspective(picture, warped, homography, box.size(), cv::INTER_LINEAR,
                        cv::BORDER_REPLICATE);
    // The coverage of each frame pixel, soft at the edges, from a supersampled mask.
    cv::Mat scale = (cv::Mat_<double>(3, 3) << 4, 0, 1.5, 0, 4, 1.5, 0, 0, 1);
    cv::Mat fine;
    cv::warpPerspective(cv::Mat(picture.size(), CV_8U, cv::Scalar(255)), fine, scale * homography,
                        box.size() * 4, cv::INTER_NEAREST, cv::BORDER_CONSTANT, 0);
    cv::resize(fine, mask, box.size(), 0, 0, cv::INTER_AREA);
    cv::Mat weights, inverse, region = frame(box);
    mask.convertTo(weights, CV_32F, 1 / 255.0);
    inverse = 1.0f - weights;
    cv::blendLinear(warped, region, weights, inverse, region);
}

void light(cv::Mat& frame, const Effects& effects) {
    if (effects.gain == 1 && effects.lightingRamp == 0)
        return;
    cv::Mat ramp(1, frame.cols, CV_32F);
    for (int x = 0; x < frame.cols; ++x)
        ramp.at<float>(x) =
            float(effects.gain * (1 + effects.lightingRamp * (double(x) / frame.cols - 0.5)));
    cv::Mat gains, channels;
    cv::repeat(ramp, frame.rows, 1, gains);
    cv::Mat planes[] = {gains, gains, gains};
    cv::merge(planes, 3, channels);
    cv::Mat lit;
    frame.convertTo(lit, CV_32FC3);
    cv::multiply(lit, channels, lit);
    lit.convertTo(frame, CV_8UC3);
}

void smear(cv::Mat& frame, const Effects& effects) {
    if (effects.blur > 0)
        cv::GaussianBlur(frame, frame, cv::Size(), effects.blur);
    if (effects.motionBlur >= 1) {
        int size = int(std::ceil(effects.motionBlur)) | 1;
        cv::Mat kernel = cv::Mat::zeros(size, size, CV_32F);
        double angle = effects.motionBlurAngle * CV_PI / 180, half = effects.motionBlur / 2;
        cv::Point2d centre(size / 2, size / 2), along(std::cos(angle), std::sin(angle));
        cv::line(kernel, centre - along * half, centre + along * half, cv::Scalar(1), 1,
                 cv::LINE_AA);
        kernel /= cv::sum(kernel)[0];
        cv::filter2D(frame, frame, -1, kernel);
    }
}

} // namespace

cv::Mat cover(const cv::Mat& background, cv::Size size) {
    double scale =
        std::max(double(size.width) / background.cols, double(size.height) / background.rows);
    cv::Mat scaled;
    cv::resize(background, scaled,
               cv::Size(std::max(size.width, int(std::ceil(background.cols * scale))),
                        std::max(size.height, int(std::ceil(background.rows * scale)))),
               0, 0, scale < 1 ? cv::INTER_AREA : cv::INTER_LINEAR);
    cv::Rect crop((scaled.cols - size.width) / 2, (scaled.rows - size.height) / 2, size.width,
                  size.height);
    return scaled(crop).clone();
}

cv::Mat render(const cv::Mat& background, const std::vector<Placement>& placements,
               const Effects& effects) {
    cv::Mat frame = background.clone();
    for (const auto& placement : placements)
        draw(frame, placement);
    light(frame, effects);
    smear(frame, effects);
    if (effects.noise > 0) {
        cv::Mat noise(frame.size(), CV_16SC3);
        cv::RNG rng(effects.seed * 2654435761u + 1);
        rng.fill(noise, cv::RNG::NORMAL, 0, effects.noise);
        cv::Mat sum;
        frame.convertTo(sum, CV_16SC3);
        sum += noise;
        sum.convertTo(frame, CV_8UC3);
    }
    if (effects.jpegQuality > 0) {
        std::vector<std::uint8_t> bytes;
        cv::imencode(".jpg", frame, bytes, {cv::IMWRITE_JPEG_QUALITY, effects.jpegQuality});
        frame = cv::imdecode(bytes, cv::IMREAD_COLOR);
    }
    return frame;
}

Quad project(const glm::dmat4& transform, glm::dvec2 physicalSize,
             const CameraIntrinsics& intrinsics) {
    // Anchor axes: x to the picture's right, z toward its bottom edge.
    double w = physicalSize.x / 2, h = physicalSize.y / 2;
    const glm::dvec4 local[] = {{-w, 0, -h, 1}, {w, 0, -h, 1}, {w, 0, h, 1}, {-w, 0, h, 1}};
    const auto& k = intrinsics.matrix;
    Quad out;
    for (int i = 0; i < 4; ++i) {
        glm::dvec4 p = transform * local[i];
        // The camera looks down -z with y up; pixels grow right and down.
        double depth = -p.z;
        out[i] = {k[0][0] * p.x / depth + k[2][0], -k[1][1] * p.y / depth + k[2][1]};
    }
    return out;
}

glm::dmat4 pose(glm::dvec3 position, glm::dvec3 rotationDegrees) {
    // Upright and facing the camera: right is +x, the normal points at the camera (+z), the
    // bottom edge is toward -y.
    glm::dmat4 facing(1.0);
    facing[1] = {0, 0, 1, 0};
    facing[2] = {0, -1, 0, 0};
    glm::dvec3 r = glm::radians(rotationDegrees);
    glm::dmat4 turn = glm::rotate(glm::dmat4(1.0), r.z, {0, 0, 1}) *
                      glm::rotate(glm::dmat4(1.0), r.y, {0, 1, 0}) *
                      glm::rotate(glm::dmat4(1.0), r.x, {1, 0, 0});
    glm::dmat4 out = turn * facing;
    out[3] = glm::dvec4(position, 1);
    return out;
}

} // namespace pelkit::ar::synthetic
