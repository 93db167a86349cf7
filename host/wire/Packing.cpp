#include "host/wire/Packing.h"

namespace host {

platform::QSDataView Unpacker::read(std::size_t count) {
    if (count > rest_.size()) {
        fail();
        return {};
    }
    const auto taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
}

/// What it counts takes a byte at least, so that a made-up length ends at once.
std::size_t Unpacker::readLength() {
    std::uint32_t length = 0;
    get(length);
    if (length <= rest_.size()) return length;
    fail();
    return 0;
}

void Unpacker::get(bool& value) {
    std::uint8_t byte = 0;
    get(byte);
    if (byte > 1) return fail();
    value = byte == 1;
}

void Unpacker::get(std::string& text) {
    text = platform::stringFromData(read(readLength()));
}

void Unpacker::get(platform::QSData& data) {
    const auto bytes = read(readLength());
    data.assign(bytes.begin(), bytes.end());
}

void Unpacker::get(platform::QSDate& date) {
    constexpr std::uint32_t second = 1'000'000'000;  // nanoseconds
    (*this)(date.seconds, date.nanoseconds);
    if (date.nanoseconds >= second) fail();
}

void Unpacker::get(std::chrono::seconds& duration) {
    std::int64_t count = 0;
    get(count);
    duration = std::chrono::seconds(count);
}

void Unpacker::get(std::map<std::string, std::string, std::less<>>& texts) {
    for (auto count = readLength(); count > 0 && !hasFailed_; --count) {
        std::string key;
        std::string value;
        (*this)(key, value);
        texts.insert_or_assign(std::move(key), std::move(value));
    }
}

void Unpacker::get(PageStart& start) {
    bool isOrder = false;
    get(isOrder);
    if (isOrder) {
        start = next<Order>();
    } else {
        start = next<PageToken>();
    }
}

}  // namespace host
