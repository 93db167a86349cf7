#include "platform/icons/QIImage.h"

#include <cairo.h>

#include "platform/icons/IconFormat.h"

namespace platform {

namespace {

cairo_status_t append(void* to, const unsigned char* bytes, unsigned int count) {
    auto& data = *static_cast<QSData*>(to);
    data.insert(data.end(), bytes, bytes + count);
    return CAIRO_STATUS_SUCCESS;
}

}  // namespace

std::optional<QIImageDestination> QIImageDestination::createWithData(QSData& data,
                                                                     std::string_view type,
                                                                     std::size_t count) {
    if (type != pngTypeIdentifier || count != 1) return std::nullopt;
    return QIImageDestination(data);
}

bool QIImageDestination::finalize() {
    if (images_.size() != 1) return false;
    auto& [side, pixels] = images_.front();
    if (side < 1 || side > largestIconPixels) return false;
    const auto count = static_cast<std::size_t>(side) * static_cast<std::size_t>(side);
    if (pixels.size() != count) return false;
    // 32 bits a pixel are every row's stride at any width.
    auto* surface = cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(pixels.data()), CAIRO_FORMAT_ARGB32, side, side, side * 4);
    const auto before = data_->size();
    const auto status = cairo_surface_write_to_png_stream(surface, append, data_);
    cairo_surface_destroy(surface);
    if (status == CAIRO_STATUS_SUCCESS) return true;
    data_->resize(before);
    return false;
}

}  // namespace platform
