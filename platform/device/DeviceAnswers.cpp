#include "platform/device/DeviceAnswers.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace platform {

namespace {

struct Question {
    std::string_view name;
    const char* variable;
    double least;  // included
    double most;
    bool isWhole;
    double fallback;
};

constexpr std::array questions{
    Question{deviceClassNumberQuestion, "TIDEWELL_DEVICE_CLASS", 1, 255, true, 3},
    Question{mainScreenScaleQuestion, "TIDEWELL_SCREEN_SCALE", 0.01, 16, false, 1}};

std::optional<double> answerIn(std::string_view text, const Question& question) {
    double value = 0;
    const auto* end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, value);
    if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
    // Neither holds for what is no number.
    if (!(value >= question.least && value <= question.most)) return std::nullopt;
    if (question.isWhole && std::floor(value) != value) return std::nullopt;
    return value;
}

}  // namespace

DeviceAnswers DeviceAnswers::ofConfiguration(const KeyFile& configuration) {
    DeviceAnswers answers;
    for (const auto& question : questions) {
        const char* given = std::getenv(question.variable);
        auto value = given ? answerIn(given, question) : std::nullopt;
        if (!value) {
            const auto configured = configuration.value("Device", question.name);
            if (configured) value = answerIn(*configured, question);
        }
        answers.answers_.emplace(question.name, value.value_or(question.fallback));
    }
    return answers;
}

std::optional<double> DeviceAnswers::answer(std::string_view question) const {
    const auto found = answers_.find(question);
    if (found == answers_.end()) return std::nullopt;
    return found->second;
}

}  // namespace platform
