#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/foundation/QSData.h"

namespace platform {

/// The type of a PNG file.
inline constexpr std::string_view pngTypeIdentifier = "image/png";

/// A square picture: rows from the top, each pixel alpha, red, green and blue from the highest byte
/// on, the colours multiplied by alpha. A plain value.
struct QIImage {
    int side = 0;
    std::vector<std::uint32_t> pixels;  ///< side times side
};

/// Writes pictures into a buffer as one file. One thread.
class QIImageDestination {
  public:
    /// Only PNG and one image are written; nothing for any other type or count. `data` must outlive
    /// the destination.
    [[nodiscard]] static std::optional<QIImageDestination> createWithData(QSData& data,
                                                                          std::string_view type,
                                                                          std::size_t count);
    void addImage(QIImage image) { images_.push_back(std::move(image)); }
    /// Writes the file behind what the buffer holds; false, and the buffer as it was, where not as
    /// many images were added as announced, or one cannot be encoded. Call it once.
    [[nodiscard]] bool finalize();

  private:
    explicit QIImageDestination(QSData& data) : data_(&data) {}

    QSData* data_;
    std::vector<QIImage> images_;
};

}  // namespace platform
