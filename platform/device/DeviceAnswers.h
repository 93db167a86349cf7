#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/KeyFile.h"

namespace platform {

// The questions that are answered.
inline constexpr std::string_view deviceClassNumberQuestion = "DeviceClassNumber";
inline constexpr std::string_view mainScreenScaleQuestion = "main-screen-scale";

/// What the platform says about the device that it runs on. Constant once made; any thread.
///
/// An answer comes from the environment (TIDEWELL_DEVICE_CLASS, TIDEWELL_SCREEN_SCALE), else from
/// the group [Device] of the configuration, where the keys are the questions; what is no number in
/// the range of the question is passed over. Without either: class 3, a device with a large screen,
/// and scale 1.
class DeviceAnswers {
  public:
    [[nodiscard]] static DeviceAnswers ofConfiguration(const KeyFile& configuration);

    /// A whole number from 1 to 255 for the class, more than 0 and up to 16 for the scale; none for
    /// a question that is not known.
    [[nodiscard]] std::optional<double> answer(std::string_view question) const;

  private:
    std::map<std::string, double, std::less<>> answers_;
};

}  // namespace platform
