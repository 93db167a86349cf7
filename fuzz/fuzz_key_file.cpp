// Any bytes as settings or the index of an icon theme: what is read is within what its readers
// promise, and whatever a device's answers are made of, they are in range.

#include "fuzz/Fuzz.h"
#include "platform/device/DeviceAnswers.h"
#include "platform/foundation/KeyFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    using platform::KeyFile;
    const std::string_view text(reinterpret_cast<const char*>(bytes), size);
    auto file = KeyFile::parse(text);
    for (const auto* key : {"Directories", "Inherits", "Size", "Scale"}) {
        for (const auto& part : file.list("Icon Theme", key)) {
            fuzz::require(!part.empty() && part.find(',') == std::string::npos, "parts are parts");
        }
        const auto number = file.positive("Icon Theme", key);
        fuzz::require(!number || (*number >= 1 && *number <= 65'535), "numbers are in range");
    }
    const auto device = platform::DeviceAnswers::ofConfiguration(file);
    const auto deviceClass = device.answer(platform::deviceClassNumberQuestion);
    const auto scale = device.answer(platform::mainScreenScaleQuestion);
    fuzz::require(deviceClass && *deviceClass >= 1 && *deviceClass <= 255, "the class is in range");
    fuzz::require(scale && *scale > 0 && *scale <= 16, "the scale is in range");
    const auto before = file.value("Device", "Theme");
    file.addMissing(KeyFile::parse("[Device]\nTheme=other\n"));
    fuzz::require(file.value("Device", "Theme") == before.value_or("other"),
                  "what is there stays, what is missing is added");
    return 0;
}
