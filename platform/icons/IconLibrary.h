#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/QSData.h"
#include "platform/foundation/QSError.h"
#include "platform/icons/IconThemes.h"
#include "platform/icons/QIImage.h"

namespace platform {

/// The icons of applications. Any thread; calls block for the disk and for the decoding program.
class IconLibrary {
  public:
    virtual ~IconLibrary() = default;

    /// The icon of that name (of a theme, or an absolute path) that fits the variant best, as the
    /// bytes of its file with the size in pixels that the variant has before them; none if there
    /// is no such icon or the variant is not known. `dataFolder` may have icons of its own in
    /// "icons"; empty for none. Variants 0, 15 and 32 are 60 points at the scales 1, 2 and 3;
    /// 1 and 24 are 76 points at 1 and 2.
    [[nodiscard]] virtual std::optional<QSData> iconDataForVariant(const std::string& iconName,
                                                                   const std::string& dataFolder,
                                                                   int variant) const = 0;

    /// Decodes what iconDataForVariant gave, in a program of its own; the error says what went
    /// wrong with it. Ends after the deadline whatever the bytes are.
    [[nodiscard]] virtual Result<QIImage> QICreateIconFromCachedBitmap(QSDataView data) const = 0;
};

/// How icons are found and decoded.
struct IconConfiguration {
    IconThemes::Configuration themes = {};
    std::string helper = {};                   ///< native path of the decoding program
    std::chrono::milliseconds deadline{4000};  ///< of one decoding
};

[[nodiscard]] std::shared_ptr<const IconLibrary> makeIconLibrary(IconConfiguration configuration);

/// Where the decoding program lies: beside this process's program, else where it is installed,
/// "../libexec/tidewell" from there.
[[nodiscard]] std::string installedIconHelper();

}  // namespace platform
