// Any bytes as what the other end of a connection sends, the first one choosing the type: what fits
// is packed as bytes that mean the same.

#include "fuzz/Fuzz.h"
#include "host/wire/Handshake.h"
#include "host/wire/Packing.h"

namespace {

template <typename T>
void check(platform::QSDataView bytes) {
    const auto value = host::unpacked<T>(bytes);
    if (!value) return;
    const auto again = host::packed(*value);
    fuzz::require(again.size() <= bytes.size(), "a value takes no more than its bytes");
    const auto back = host::unpacked<T>(again);
    fuzz::require(back && host::packed(*back) == again, "what is packed means the same");
}

template <typename... T>
void checkOne(std::size_t which, platform::QSDataView bytes) {
    std::size_t at = 0;
    ((at++ == which ? check<T>(bytes) : void()), ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0) return 0;
    checkOne<host::ItemRecord, host::Page, host::ChangePage, host::ItemTarget, host::PageStart,
             host::Health, std::vector<host::AppRecord>, std::vector<host::Thumbnail>,
             host::AgeLimit, platform::QSError, host::ExtensionSetup,
             platform::Result<host::ExtensionFacts>>(bytes[0] % 12, {bytes + 1, size - 1});
    return 0;
}
