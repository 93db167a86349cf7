#include "tidewell/fs/FSChangeToken.h"

#include "platform/foundation/QSPropertyList.h"
#include "platform/foundation/fatalError.h"
#include "tidewell/common/Logging.h"

namespace tidewell {

namespace {

QSError unusable(const char* key) {
    return mochaError(QSCoderReadCorruptError,
                      std::string("\"") + key + "\" is missing or of the wrong type");
}

Result<std::uint64_t> number(const QSPropertyList& list, const char* key) {
    const auto* value = list.find(key);
    const auto decoded = value ? value->asUnsigned() : std::nullopt;
    if (!decoded) return std::unexpected(unusable(key));
    return *decoded;
}

Result<QSUUID> uuid(const QSPropertyList& list, const char* key) {
    const auto* value = list.find(key);
    const auto* text = value ? value->asString() : nullptr;
    const auto decoded = text ? QSUUID::fromString(*text) : std::nullopt;
    if (!decoded) return std::unexpected(unusable(key));
    return *decoded;
}

/// Reads into `field`, unless an earlier key failed already.
template <typename T>
void read(std::optional<QSError>& failure, T& field, Result<T> value) {
    if (failure) return;
    if (value) {
        field = *value;
    } else {
        failure = value.error();
    }
}

Result<FSChangeToken> decode(const QSData& data) {
    const auto list = propertyListWithData(data);
    if (!list) return std::unexpected(list.error());
    FSChangeToken token;
    std::optional<QSError> failure;
    read(failure, token.version, number(*list, "v"));
    read(failure, token.deviceUUID, uuid(*list, "d"));
    read(failure, token.streamEventID, number(*list, "s"));
    read(failure, token.offset, number(*list, "o"));
    read(failure, token.appLibraryVersionToken, number(*list, "a"));
    if (failure) return std::unexpected(*failure);
    return token;
}

}  // namespace

std::optional<FSChangeToken> FSChangeToken::fromData(const std::optional<QSData>& data) {
    if (!data) return std::nullopt;
    const auto token = decode(*data);
    if (token) return *token;
    logError(
        [&] { return "can't decode token from provided data;" + token.error().description(); });
    return std::nullopt;
}

QSData FSChangeToken::data() const {
    auto encoded = binaryData(QSPropertyList::Dictionary{{"v", version},
                                                         {"d", deviceUUID.UUIDString()},
                                                         {"s", streamEventID},
                                                         {"o", offset},
                                                         {"a", appLibraryVersionToken}});
    if (encoded) return std::move(*encoded);
    logError([&] { return "can't encode token;" + encoded.error().description(); });
    fatalError("encoding token should never failed");
}

std::string FSChangeToken::description() const {
    return "<version: " + std::to_string(version) + ", device: " + deviceUUID.UUIDString() +
           ", event: " + std::to_string(streamEventID) + ", offset: " + std::to_string(offset) +
           ", app libraries: " + std::to_string(appLibraryVersionToken) + ">";
}

}  // namespace tidewell
