// The module's one user of SDL2_ttf.
#include "Text.h"

#include <SDL_ttf.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace pelkit::ui::text {
namespace {

constexpr const char* kDefaultFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

ErrorPtr ttfError(const std::string& call) {
    return Error::make("SDL_ttf", -1, call + ": " + TTF_GetError());
}

struct FontCloser {
    void operator()(TTF_Font* font) const { TTF_CloseFont(font); }
};
using Font = std::unique_ptr<TTF_Font, FontCloser>;

struct SurfaceFreer {
    void operator()(SDL_Surface* surface) const { SDL_FreeSurface(surface); }
};
using Surface = std::unique_ptr<SDL_Surface, SurfaceFreer>;

std::mutex mutex;
std::map<int, Font> fonts; // by pixel size; kept for the process's life

Result<TTF_Font*> font(int pixelSize) {
    if (auto found = fonts.find(pixelSize); found != fonts.end())
        return found->second.get();
    if (!TTF_WasInit() && TTF_Init() != 0)
        return std::unexpected(ttfError("TTF_Init"));
    const char* chosen = std::getenv("PELKIT_FONT");
    const std::string path = chosen && *chosen ? chosen : kDefaultFont;
    Font opened(TTF_OpenFont(path.c_str(), pixelSize));
    if (!opened)
        return std::unexpected(ttfError("TTF_OpenFont(" + path + ")"));
    return fonts.emplace(pixelSize, std::move(opened)).first->second.get();
}

std::uint8_t channel(float value) {
    return std::uint8_t(std::clamp(value, 0.0f, 1.0f) * 255.0f + 0.5f);
}

} // namespace

Result<std::shared_ptr<const image::Image>> render(std::string_view text, int pixelSize,
                                                   Color color) {
    if (text.empty())
        return std::make_shared<const image::Image>();
    std::lock_guard lock(mutex);
    auto face = font(std::max(1, pixelSize));
    if (!face)
        return std::unexpected(face.error());
    const SDL_Color ink{channel(color.red), channel(color.green), channel(color.blue),
                        channel(color.alpha)};
    Surface drawn(TTF_RenderUTF8_Blended(*face, std::string(text).c_str(), ink));
    if (!drawn)
        return std::unexpected(ttfError("TTF_RenderUTF8_Blended"));
    Surface rgba(SDL_ConvertSurfaceFormat(drawn.get(), SDL_PIXELFORMAT_RGBA32, 0));
    if (!rgba)
        return std::unexpected(
            Error::make("SDL", -1, std::string("SDL_ConvertSurfaceFormat: ") + SDL_GetError()));
    auto image = std::make_shared<image::Image>();
    image->width = rgba->w;
    image->height = rgba->h;
    image->rgba.resize(image->stride() * image->height);
    const auto* source = static_cast<const std::uint8_t*>(rgba->pixels);
    for (int row = 0; row < image->height; ++row)
        std::memcpy(image->pixel(0, row), source + row * rgba->pitch, image->stride());
    return std::shared_ptr<const image::Image>(std::move(image));
}

} // namespace pelkit::ui::text
