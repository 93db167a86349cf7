#include "tidewell/provider/BestIcon.h"

#include "platform/fileprovider/Platform.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

namespace {

int variantFor(double scale, bool isPadClass) {
    if (scale == 3.0) return 32;
    if (scale == 2.0) return isPadClass ? 24 : 15;
    return isPadClass ? 1 : 0;
}

}  // namespace

std::optional<QSData> bestIconData(const QLApplicationProxy& application) {
    constexpr double padClass = 3;
    const auto& device = Platform::current().device();
    const bool isPadClass = device.answer(deviceClassNumberQuestion) == padClass;
    const auto screenScale = device.answer(mainScreenScaleQuestion).value_or(1.0);
    constexpr int mostVariants = 3;
    double scale = screenScale;
    for (int asked = 0; scale >= 1.0 && asked < mostVariants; scale -= 1.0, ++asked) {
        auto data = Platform::current().icons().iconDataForVariant(
            application.iconName, application.dataFolder, variantFor(scale, isPadClass));
        if (data) return data;
    }
    return std::nullopt;
}

std::string descriptionOf(const QLApplicationProxy& application) {
    return "<QLApplicationProxy: " + application.bundleIdentifier.value_or("(null)") +
           " icon:" + quoted(application.iconName) + ">";
}

}  // namespace tidewell
