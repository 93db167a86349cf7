#include "platform/icons/IconLibrary.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <utility>

#include "platform/files/FileDescriptor.h"
#include "platform/icons/IconDecoder.h"
#include "platform/icons/IconFormat.h"

namespace platform {

namespace {

struct Variant {
    int number;
    int points;
    int scale;
};
constexpr std::array variants{Variant{0, 60, 1}, Variant{15, 60, 2}, Variant{32, 60, 3},
                              Variant{1, 76, 1}, Variant{24, 76, 2}};

// "QICB" and the size in pixels, lowest byte first, before the icon's file.
constexpr std::array<std::uint8_t, 4> cachedBitmapMagic{'Q', 'I', 'C', 'B'};
constexpr std::size_t headerSize = 8;

/// Appends the file's bytes; false where it is no regular file, too large or cannot be read.
bool appendFile(const std::string& path, QSData& data) {
    // Neither a pipe without a writer nor a device makes this wait.
    const FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    const auto begin = data.size();
    data.resize(begin + largestIconFile + 1);
    auto end = begin;
    for (ssize_t count = 1; count > 0 && end < data.size();) {
        count = read(fd.get(), data.data() + end, data.size() - end);
        if (count < 0) return false;
        end += static_cast<std::size_t>(count);
    }
    data.resize(end);
    return end - begin <= largestIconFile;
}

class ThemedIconLibrary final : public IconLibrary {
  public:
    explicit ThemedIconLibrary(IconConfiguration configuration)
        : themes_(std::move(configuration.themes)),
          decoder_(std::move(configuration.helper), configuration.deadline) {}

    std::optional<QSData> iconDataForVariant(const std::string& iconName,
                                             const std::string& dataFolder,
                                             int variant) const override {
        for (const auto& [number, points, scale] : variants) {
            if (number != variant) continue;
            const auto path = themes_.find(iconName, points, scale,
                                           dataFolder.empty() ? "" : dataFolder + "/icons");
            if (!path) return std::nullopt;
            QSData data(cachedBitmapMagic.begin(), cachedBitmapMagic.end());
            for (int shift = 0; shift < 32; shift += 8) {
                data.push_back(static_cast<std::uint8_t>(points * scale >> shift));
            }
            return appendFile(*path, data) ? std::optional(std::move(data)) : std::nullopt;
        }
        return std::nullopt;
    }

    Result<QIImage> QICreateIconFromCachedBitmap(QSDataView data) const override {
        const auto begin = data.first(std::min(data.size(), cachedBitmapMagic.size()));
        if (data.size() <= headerSize || !std::ranges::equal(begin, cachedBitmapMagic)) {
            return std::unexpected(errorFromErrno(EINVAL));
        }
        std::uint32_t side = 0;
        for (std::size_t i = headerSize; i > cachedBitmapMagic.size(); --i) {
            side = side << 8 | data[i - 1];
        }
        if (side < 1 || side > std::uint32_t{largestIconPixels}) {
            return std::unexpected(errorFromErrno(EINVAL));
        }
        return decoder_.decode(data.subspan(headerSize), static_cast<int>(side));
    }

  private:
    // Constant after construction.
    IconThemes themes_;
    IconDecoder decoder_;
};

}  // namespace

std::shared_ptr<const IconLibrary> makeIconLibrary(IconConfiguration configuration) {
    return std::make_shared<ThemedIconLibrary>(std::move(configuration));
}

std::string installedIconHelper() {
    std::array<char, PATH_MAX> buffer;
    const auto size = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (size <= 0) return {};
    std::string folder(buffer.data(), static_cast<std::size_t>(size));
    folder.resize(folder.rfind('/'));
    auto beside = folder + "/tidewell-icon";
    if (access(beside.c_str(), X_OK) == 0) return beside;
    return folder + "/../libexec/tidewell/tidewell-icon";
}

}  // namespace platform
