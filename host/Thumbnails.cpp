// What stands for an item, and what is in it: thumbnails and content.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "host/Answer.h"
#include "host/DocumentService.h"
#include "host/EntryChoice.h"
#include "platform/fileprovider/Platform.h"
#include "platform/fileprovider/QSFileProviderError.h"
#include "platform/fileprovider/QSFileProviderExtension.h"

namespace host {

using platform::Result;

namespace {

constexpr std::chrono::milliseconds thumbnailDeadline = std::chrono::seconds(10);

struct None {};

/// What an extension's completion handler without a value is to be.
template <typename Parts>
auto finishing(const std::shared_ptr<Answer<Parts, None>>& answer) {
    return [answer](std::optional<platform::QSError> error) {
        answer->finish(error ? Result<None>(std::unexpected(std::move(*error))) : None{});
    };
}

}  // namespace

Result<std::vector<DocumentService::Thumbnail>> DocumentService::thumbnails(
    const std::vector<std::string>& identifiers) const {
    const auto answer = std::make_shared<Answer<std::vector<Thumbnail>, None>>();
    const platform::QSFileProviderExtension::PerThumbnailCompletionHandlerWithType collect =
        [answer](const std::string& identifier, const std::optional<platform::QSData>& data,
                 const std::optional<std::string>& type,
                 const std::optional<platform::QSError>& /*error*/) {
            answer->collect([&](auto& all) { all.push_back({identifier, data, type}); });
        };
    session_->extension().fetchThumbnailsForItemIdentifiers(identifiers, {}, collect,
                                                            finishing(answer));
    const auto count = static_cast<int>(identifiers.size());
    auto [thumbnails, end] = answer->wait(thumbnailDeadline * (count + 1));
    if (!end) return std::unexpected(session_->withNativePath(std::move(end.error())));
    return std::move(thumbnails);
}

Result<void> DocumentService::readContent(const ItemTarget& target,
                                          const ContentHandler& handler) const {
    const auto& identifier = target.itemIdentifier;
    const auto choice = EntryChoice::ofEntry(*session_, volume_, target);
    if (!choice) return std::unexpected(choice.error());
    const auto url = session_->extension().URLForItemWithPersistentIdentifier(identifier);
    if (!url) {
        return std::unexpected(session_->withNativePath(
            platform::fileProviderErrorForNonExistentItemWithIdentifier(identifier)));
    }
    const auto answer = std::make_shared<Answer<None, None>>();
    session_->extension().startProvidingItemAtURL(*url, finishing(answer));
    auto provided = answer->wait(thumbnailDeadline).second;
    if (!provided) return std::unexpected(session_->withNativePath(std::move(provided.error())));

    const auto failed = [&](int code) {
        return std::unexpected(platform::errorFromErrno(code, session_->paths().nativePath(*url)));
    };
    auto file = platform::Platform::current().files().openObject(*url, O_RDONLY);
    if (!file) return std::unexpected(std::move(file.error()));
    struct stat status {};
    if (fstat(file->get(), &status) != 0) return failed(errno);
    if (!S_ISREG(status.st_mode)) return failed(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    std::array<std::uint8_t, 64 * 1024> buffer;
    for (;;) {
        const auto count = read(file->get(), buffer.data(), buffer.size());
        if (count < 0) return failed(errno);
        const auto size = static_cast<std::size_t>(count);
        if (size == 0 || !handler(platform::QSDataView(buffer).first(size))) break;
    }
    session_->extension().stopProvidingItemAtURL(*url);
    return {};
}

}  // namespace host
