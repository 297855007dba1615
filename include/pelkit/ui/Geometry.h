// Points, sizes and rectangles of the user interface, in points (one point is one pixel on a
// desktop), with the origin at the top-left corner and y pointing down. Plain values; any thread.
#pragma once

#include <pelkit/scene/Material.h>

#include <algorithm>

namespace pelkit::ui {

using Color = scene::Color;

struct Point {
    float x = 0;
    float y = 0;
    friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
    float width = 0;
    float height = 0;
    friend bool operator==(const Size&, const Size&) = default;
};

/// Distances inward from each edge of a rectangle.
struct EdgeInsets {
    float top = 0;
    float left = 0;
    float bottom = 0;
    float right = 0;
    friend bool operator==(const EdgeInsets&, const EdgeInsets&) = default;
};

struct Rect {
    Point origin;
    Size size;

    float minX() const { return origin.x; }
    float minY() const { return origin.y; }
    float maxX() const { return origin.x + size.width; }
    float maxY() const { return origin.y + size.height; }
    float midX() const { return origin.x + size.width / 2; }
    float midY() const { return origin.y + size.height / 2; }
    bool isEmpty() const { return size.width <= 0 || size.height <= 0; }
    /// Edges are inside on the top and left, outside on the bottom and right.
    bool contains(Point p) const {
        return p.x >= minX() && p.x < maxX() && p.y >= minY() && p.y < maxY();
    }
    Rect inset(const EdgeInsets& insets) const {
        return {{origin.x + insets.left, origin.y + insets.top},
                {std::max(0.0f, size.width - insets.left - insets.right),
                 std::max(0.0f, size.height - insets.top - insets.bottom)}};
    }
    Rect offset(float dx, float dy) const { return {{origin.x + dx, origin.y + dy}, size}; }
    friend bool operator==(const Rect&, const Rect&) = default;
};

/// The largest rectangle of `content`'s aspect ratio that fits in `bounds`, centred in it (the
/// rest is letterbox). An empty content gives an empty rectangle at the centre.
Rect aspectFit(Size content, const Rect& bounds);

namespace colors {
inline constexpr Color black{0, 0, 0, 1};
inline constexpr Color white{1, 1, 1, 1};
inline constexpr Color clear{0, 0, 0, 0};
inline constexpr Color gray{0.5f, 0.5f, 0.5f, 1};
} // namespace colors

} // namespace pelkit::ui
