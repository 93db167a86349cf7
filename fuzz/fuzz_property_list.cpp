// Any bytes as a property list: what decodes is written, read and written again to the same bytes.
// Bytes are compared, not values, because a real may be NaN.

#include "fuzz/Fuzz.h"

using namespace platform;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto list = propertyListWithData({bytes, size});
    if (!list) return 0;
    const auto written = binaryData(*list);
    fuzz::require(written.has_value(), "what decodes can be written");
    const auto again = propertyListWithData(*written, fuzz::wideLimits);
    fuzz::require(again.has_value(), "what is written can be read");
    fuzz::require(binaryData(*again) == written, "what is read again is the same");
    return 0;
}
