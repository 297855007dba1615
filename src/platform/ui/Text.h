// Text rasterised with SDL2_ttf in DejaVu Sans. Thread-safe.
#pragma once

#include <pelkit/foundation/Error.h>
#include <pelkit/image/Image.h>
#include <pelkit/ui/Geometry.h>

#include <memory>
#include <string_view>

namespace pelkit::ui::text {

/// One line of `text` at `pixelSize`, anti-aliased, in `color` with the coverage as alpha. The
/// font is $PELKIT_FONT when set, else Debian's DejaVu Sans (fonts-dejavu-core). Empty text
/// gives an empty image.
[[nodiscard]] Result<std::shared_ptr<const image::Image>> render(std::string_view text,
                                                                 int pixelSize, Color color);

} // namespace pelkit::ui::text
