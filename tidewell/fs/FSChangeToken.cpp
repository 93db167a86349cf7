#include "tidewell/fs/FSChangeToken.h"

#include <source_location>
#include <utility>

#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/fatalError.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

namespace {

QSError unusable(const char* key) {
    return mochaError(QSCoderReadCorruptError,
                      std::string("\"") + key + "\" is missing or of the wrong type");
}

/// Reads the value of the key into the field, which stays as it is on failure.
Result<void> read(const QSPropertyList& list, const char* key, std::uint64_t& field) {
    const auto* value = list.find(key);
    const auto decoded = value ? value->asUnsigned() : std::nullopt;
    if (!decoded) return std::unexpected(unusable(key));
    field = *decoded;
    return {};
}

Result<void> read(const QSPropertyList& list, const char* key, QSUUID& field) {
    const auto* value = list.find(key);
    const auto* text = value ? value->asString() : nullptr;
    const auto decoded = text ? QSUUID::fromString(*text) : std::nullopt;
    if (!decoded) return std::unexpected(unusable(key));
    field = *decoded;
    return {};
}

}  // namespace

Result<FSChangeToken> FSChangeToken::decode(const QSPropertyList& list) {
    FSChangeToken token;
    auto done = read(list, "v", token.version);
    if (done) done = read(list, "d", token.deviceUUID);
    if (done) done = read(list, "s", token.streamEventID);
    if (done) done = read(list, "o", token.offset);
    if (done) done = read(list, "a", token.appLibraryVersionToken);
    if (!done) return std::unexpected(std::move(done.error()));
    return token;
}

std::optional<FSChangeToken> FSChangeToken::fromData(const std::optional<QSData>& data) {
    if (!data) return std::nullopt;
    // Bytes that are no list and a list that is no token are reported alike.
    const auto list = propertyListWithData(*data);
    const auto token = list ? decode(*list) : std::unexpected(list.error());
    if (token) return *token;
    logError(
        [&] { return "can't decode token from provided data;" + token.error().description(); });
    return std::nullopt;
}

QSPropertyList FSChangeToken::encode() const {
    return QSPropertyList::Dictionary{{"v", version},
                                      {"d", deviceUUID.UUIDString()},
                                      {"s", streamEventID},
                                      {"o", offset},
                                      {"a", appLibraryVersionToken}};
}

QSData FSChangeToken::data() const {
    auto encoded = binaryData(encode());
    if (encoded) return std::move(*encoded);
    logError([&] { return "can't encode token;" + encoded.error().description(); });
    // A number that every report of this failure has.
    constexpr auto place = std::source_location::current();
    static_assert(place.line() == 74, "the line that reports of this failure name");
    fatalError("encoding token should never failed", place);
}

std::string FSChangeToken::description() const {
    return "<version: " + std::to_string(version) + ", device: " + deviceUUID.UUIDString() +
           ", event: " + std::to_string(streamEventID) + ", offset: " + std::to_string(offset) +
           ", app libraries: " + std::to_string(appLibraryVersionToken) + ">";
}

}  // namespace tidewell
