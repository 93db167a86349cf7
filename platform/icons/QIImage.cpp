#include "platform/icons/QIImage.h"

#include <png.h>

#include <algorithm>

#include "platform/icons/IconFormat.h"

namespace platform {

namespace {

/// A pixel's colour at `shift`, not multiplied by alpha any more.
std::uint8_t colour(std::uint32_t pixel, unsigned shift) {
    const auto alpha = pixel >> 24;
    const auto value = pixel >> shift & 0xff;
    if (alpha == 0) return 0;
    return static_cast<std::uint8_t>(std::min((value * 255 + alpha / 2) / alpha, 255U));
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
    std::vector<std::uint8_t> rows;
    rows.reserve(count * 4);
    for (const auto pixel : pixels) {
        for (const unsigned shift : {16U, 8U, 0U}) rows.push_back(colour(pixel, shift));
        rows.push_back(static_cast<std::uint8_t>(pixel >> 24));
    }
    png_image file{};
    file.version = PNG_IMAGE_VERSION;
    file.width = file.height = static_cast<png_uint_32>(side);
    file.format = PNG_FORMAT_RGBA;
    const auto before = data_->size();
    png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(file);
    data_->resize(before + size);
    const bool isWritten = png_image_write_to_memory(&file, data_->data() + before, &size, 0,
                                                     rows.data(), 0, nullptr) != 0;
    data_->resize(isWritten ? before + size : before);
    return isWritten;
}

}  // namespace platform
