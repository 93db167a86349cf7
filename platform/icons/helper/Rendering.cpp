#include "platform/icons/helper/Rendering.h"

#include <cairo.h>
#include <librsvg/rsvg.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace platform {

namespace {

template <typename T, void (*release)(T*)>
struct Released {
    void operator()(T* object) const { release(object); }
};
using Surface = std::unique_ptr<cairo_surface_t, Released<cairo_surface_t, cairo_surface_destroy>>;
using Context = std::unique_ptr<cairo_t, Released<cairo_t, cairo_destroy>>;

using Bytes = std::span<const std::uint8_t>;

constexpr std::array<std::uint8_t, 16> pngBeginning{0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A,
                                                    0,    0,   0,   13,  'I',  'H',  'D',  'R'};
constexpr std::uint32_t largestSide = 4096;  // of a PNG: 64 MiB of pixels

bool isPNG(Bytes file) {
    return file.size() >= pngBeginning.size() &&
           std::equal(pngBeginning.begin(), pngBeginning.end(), file.begin());
}

std::uint32_t bigEndian(Bytes bytes) {
    std::uint32_t value = 0;
    for (const auto byte : bytes.first(4)) value = value << 8 | byte;
    return value;
}

cairo_status_t readNext(void* rest, unsigned char* to, unsigned int count) {
    auto& file = *static_cast<Bytes*>(rest);
    if (file.size() < count) return CAIRO_STATUS_READ_ERROR;
    std::memcpy(to, file.data(), count);
    file = file.subspan(count);
    return CAIRO_STATUS_SUCCESS;
}

bool drawPNG(cairo_t* context, Bytes file, int side) {
    constexpr std::size_t endOfSize = 24;
    if (file.size() < endOfSize) return false;
    const auto width = bigEndian(file.subspan(16));
    const auto height = bigEndian(file.subspan(20));
    if (width < 1 || height < 1 || width > largestSide || height > largestSide) return false;
    const Surface picture(cairo_image_surface_create_from_png_stream(readNext, &file));
    if (cairo_surface_status(picture.get()) != CAIRO_STATUS_SUCCESS) return false;
    const double scale = static_cast<double>(side) / std::max(width, height);
    cairo_translate(context, (side - width * scale) / 2, (side - height * scale) / 2);
    cairo_scale(context, scale, scale);
    cairo_set_source_surface(context, picture.get(), 0, 0);
    cairo_pattern_set_filter(cairo_get_source(context), CAIRO_FILTER_GOOD);
    cairo_paint(context);
    return true;
}

bool drawSVG(cairo_t* context, Bytes file, int side) {
    // Without a place of its own the document refers to no other file.
    const std::unique_ptr<RsvgHandle, void (*)(RsvgHandle*)> document(
        rsvg_handle_new_from_data(file.data(), file.size(), nullptr),
        [](RsvgHandle* handle) { g_clear_object(&handle); });
    if (!document) return false;
    const auto length = static_cast<double>(side);
    const RsvgRectangle viewport{0, 0, length, length};
    return rsvg_handle_render_document(document.get(), context, &viewport, nullptr) != FALSE;
}

}  // namespace

std::vector<std::uint32_t> renderIcon(std::span<const std::uint8_t> file, int side) {
    const Surface canvas(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, side, side));
    const Context context(cairo_create(canvas.get()));
    const bool isDrawn =
        isPNG(file) ? drawPNG(context.get(), file, side) : drawSVG(context.get(), file, side);
    if (!isDrawn || cairo_status(context.get()) != CAIRO_STATUS_SUCCESS) return {};
    cairo_surface_flush(canvas.get());
    const auto* rows = cairo_image_surface_get_data(canvas.get());
    if (!rows) return {};
    const auto width = static_cast<std::size_t>(side);
    const auto stride = static_cast<std::size_t>(cairo_image_surface_get_stride(canvas.get()));
    std::vector<std::uint32_t> pixels(width * width);
    for (std::size_t y = 0; y < width; ++y) {
        std::memcpy(&pixels[y * width], rows + y * stride, width * sizeof(std::uint32_t));
    }
    return pixels;
}

}  // namespace platform
