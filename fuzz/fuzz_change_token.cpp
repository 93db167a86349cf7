// Any bytes as a page token or sync anchor: what decodes is written as a token that reads the same.

#include "fuzz/Fuzz.h"
#include "platform/log/Log.h"
#include "tidewell/fs/FSChangeToken.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    [[maybe_unused]] static const bool silent = [] {
        platform::installLog(nullptr, platform::LogLevel::Error);
        return true;
    }();
    const auto token = tidewell::FSChangeToken::fromData(platform::QSData(bytes, bytes + size));
    if (!token) return 0;
    const auto again = tidewell::FSChangeToken::fromData(token->data());
    fuzz::require(again && again->description() == token->description(),
                  "what is written reads the same");
    return 0;
}
