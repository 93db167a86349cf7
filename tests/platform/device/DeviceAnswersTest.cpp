#include "platform/device/DeviceAnswers.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace platform {
namespace {

using Answers = std::pair<std::optional<double>, std::optional<double>>;

Answers answers(std::string_view configuration) {
    const auto device = DeviceAnswers::ofConfiguration(KeyFile::parse(configuration));
    EXPECT_EQ(device.answer("unheard-of"), std::nullopt);
    return {device.answer("DeviceClassNumber"), device.answer("main-screen-scale")};
}

TEST(DeviceAnswersTest, EnvironmentThenConfigurationThenDefaults) {
    unsetenv("TIDEWELL_DEVICE_CLASS");
    unsetenv("TIDEWELL_SCREEN_SCALE");
    EXPECT_EQ(answers(""), Answers(3, 1));
    constexpr auto phone = "[Device]\nDeviceClassNumber=1\nmain-screen-scale = 2.5\n";
    EXPECT_EQ(answers(phone), Answers(1, 2.5));
    EXPECT_EQ(answers("[Other]\nDeviceClassNumber=1\n"), Answers(3, 1));
    setenv("TIDEWELL_DEVICE_CLASS", "2", 1);
    setenv("TIDEWELL_SCREEN_SCALE", "0.5", 1);
    EXPECT_EQ(answers(phone), Answers(2, 0.5));
    setenv("TIDEWELL_DEVICE_CLASS", "many", 1);
    unsetenv("TIDEWELL_SCREEN_SCALE");
    EXPECT_EQ(answers(phone), Answers(1, 2.5)) << "what is no number is passed over";
    unsetenv("TIDEWELL_DEVICE_CLASS");
}

}  // namespace
}  // namespace platform
